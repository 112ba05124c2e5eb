// SPDX-License-Identifier: GPL-2.0
// Any bytes are an entry of a source's log, as its encoder writes it, or refused. Input: the kind,
// the payload.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz/input.h"
#include "mirrord/service/log_entries.h"

namespace {

void check(bool holds) {
  if (!holds) std::abort();
}

template <class Entry>
void try_one(tarn::Result<Entry> (*decode)(tarn::Bytes), const std::vector<std::byte> &payload) {
  const auto decoded = decode({payload.data(), payload.size()});
  if (decoded)
    check(encode(*decoded) == payload);
  else
    check(decoded.error().code == -EBADMSG && !decoded.error().text.empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  fuzz::Input input(data, size);
  const unsigned kind = input.u8();
  const std::string rest = input.rest();
  std::vector<std::byte> payload(rest.size());
  if (!rest.empty()) std::memcpy(payload.data(), rest.data(), rest.size());
  switch (static_cast<tarn::EntryKind>(kind)) {
    case tarn::EntryKind::kGap:
      try_one(tarn::decode_gap, payload);
      break;
    case tarn::EntryKind::kMark:
      try_one(tarn::decode_mark, payload);
      break;
    case tarn::EntryKind::kWalkBegin:
      try_one(tarn::decode_walk_begin, payload);
      break;
    case tarn::EntryKind::kLook:
      try_one(tarn::decode_look, payload);
      break;
    case tarn::EntryKind::kWalkEnd:
      try_one(tarn::decode_walk_end, payload);
      break;
    case tarn::EntryKind::kJoin:
      try_one(tarn::decode_join, payload);
      break;
    default:
      break;
  }
  return 0;
}
