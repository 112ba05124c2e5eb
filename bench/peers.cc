// SPDX-License-Identifier: GPL-2.0
#include "bench/peers.h"

#include <re2/re2.h>

#include <stdexcept>

namespace {

constexpr int64_t kRe2Memory = 1LL << 30;  // so that its automaton is never thrown away

re2::RE2::Options re2_options() {
  re2::RE2::Options options;
  options.set_encoding(re2::RE2::Options::EncodingLatin1);
  options.set_max_mem(kRe2Memory);
  return options;
}

}  // namespace

Re2Peer::Re2Peer(const std::vector<std::string> &dirs)
    : set_(re2_options(), re2::RE2::ANCHOR_START) {
  for (const std::string &dir : dirs) {
    if (set_.Add(re2::RE2::QuoteMeta(dir) + "/", nullptr) < 0) {
      throw std::runtime_error("re2: bad pattern");
    }
  }
  if (!set_.Compile()) throw std::runtime_error("re2: cannot compile the list");
}

HyperscanPeer::HyperscanPeer(const std::vector<std::string> &dirs) {
  std::vector<std::string> texts;
  for (const std::string &dir : dirs) texts.push_back("^" + re2::RE2::QuoteMeta(dir) + "/");
  std::vector<const char *> patterns;
  std::vector<unsigned> flags, ids;
  for (const std::string &text : texts) {
    ids.push_back(static_cast<unsigned>(patterns.size()));
    flags.push_back(HS_FLAG_SINGLEMATCH);
    patterns.push_back(text.c_str());
  }
  hs_database_t *database = nullptr;
  hs_compile_error_t *error = nullptr;
  if (hs_compile_multi(patterns.data(), flags.data(), ids.data(),
                       static_cast<unsigned>(patterns.size()), HS_MODE_BLOCK, nullptr, &database,
                       &error) != HS_SUCCESS) {
    const std::string text = std::string("hyperscan: ") + error->message;
    hs_free_compile_error(error);
    throw std::runtime_error(text);
  }
  database_.reset(database);
  hs_scratch_t *scratch = nullptr;
  if (hs_alloc_scratch(database, &scratch) != HS_SUCCESS) {
    throw std::runtime_error("hyperscan: no scratch space");
  }
  scratch_.reset(scratch);
}
