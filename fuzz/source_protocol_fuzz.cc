// SPDX-License-Identifier: GPL-2.0
// Any bytes are a question about a source or an answer to one, as its encoder writes it, or
// refused; and any question gets an answer. Input: 0 or 1 for a question or an answer, and the
// message; without its checksum, which random bytes never have, unless the first byte has bit 1.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#define XXH_INLINE_ALL
#include <xxhash.h>

#include "fuzz/input.h"
#include "mirrord/remote/protocol.h"
#include "mirrord/remote/source_server.h"

namespace {

using tarn::Bytes;

void check(bool holds) {
  if (!holds) std::abort();
}

void check_refused(const tarn::Error &error) {
  check((error.code == -EBADMSG || error.code == -EPROTONOSUPPORT) && !error.text.empty());
}

void try_question(const std::vector<std::byte> &message) {
  const auto question = tarn::remote::decode_question(message);
  if (question)
    check(encode(*question) == message);
  else
    check_refused(question.error());
  // What a question names is looked for; nothing is there.
  static tarn::SourceServer server(
      {.directory = "/proc/self/fdinfo/no-source",
       .included = [](const std::string &) { return true; },
       .walk = [](const auto &) { return tarn::Result<void>(); },
       .mark = [] { return tarn::Result<std::uint64_t>(1); },
       .report = [](const auto &) {},
       .again = [](const auto &) { return tarn::Result<bool>(true); }});
  const auto bytes = server.answer(message);
  check(bytes.size() <= tarn::remote::kMessageMax);
  const auto answer = tarn::remote::decode_answer(bytes);
  check(answer.ok() && answer->number == (question ? question->number : 0));
}

void try_answer(const std::vector<std::byte> &message) {
  const auto answer = tarn::remote::decode_answer(message);
  if (answer)
    check(encode(*answer) == message);
  else
    check_refused(answer.error());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  fuzz::Input input(data, size);
  const unsigned form = input.u8();
  const std::string rest = input.rest();
  std::vector<std::byte> message(rest.size());
  if (!rest.empty()) std::memcpy(message.data(), rest.data(), rest.size());
  if ((form & 2) == 0) {
    const std::uint64_t sum = XXH3_64bits(message.data(), message.size());
    for (unsigned i = 0; i < sizeof(sum); ++i)
      message.push_back(static_cast<std::byte>((sum >> (8 * i)) & 0xff));
  }
  if ((form & 1) == 0)
    try_question(message);
  else
    try_answer(message);
  return 0;
}
