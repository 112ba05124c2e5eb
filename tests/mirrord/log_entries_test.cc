// SPDX-License-Identifier: GPL-2.0
// The entries of a source's log: what is written is read again, and nothing else is accepted.
#include "mirrord/service/log_entries.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <cerrno>
#include <functional>

namespace tarn {
namespace {

using Payload = std::vector<std::byte>;

Bytes bytes_of(const Payload &payload) {
  return {payload.data(), payload.size()};
}

/* Texts of any bytes, and numbers with all bits used. */
GapEntry any_gap() {
  return {*rc::gen::arbitrary<std::int64_t>(), *rc::gen::arbitrary<std::string>()};
}
MarkEntry any_mark() {
  return {*rc::gen::arbitrary<std::uint64_t>(), *rc::gen::arbitrary<std::int64_t>()};
}
WalkBeginEntry any_walk_begin() {
  return {*rc::gen::arbitrary<std::uint64_t>(), *rc::gen::arbitrary<std::int64_t>(),
          *rc::gen::arbitrary<std::string>()};
}
LookEntry any_look() {
  return {*rc::gen::arbitrary<std::uint64_t>(), *rc::gen::arbitrary<std::uint32_t>(),
          *rc::gen::arbitrary<std::string>()};
}
WalkEndEntry any_walk_end() {
  return {*rc::gen::arbitrary<std::uint64_t>(), *rc::gen::arbitrary<bool>()};
}
JoinEntry any_join() {
  JoinEntry join;
  for (std::uint8_t &byte : join.epoch.bytes) byte = *rc::gen::arbitrary<std::uint8_t>();
  join.position = *rc::gen::arbitrary<std::uint64_t>();
  join.missing = *rc::gen::arbitrary<bool>();
  join.reason = *rc::gen::arbitrary<std::string>();
  return join;
}

template <class Entry>
void refuse(const std::function<Result<Entry>(Bytes)> &decode, const Payload &payload) {
  // In memory of its own, so that a read behind its end is found.
  const Payload copy(payload.begin(), payload.end());
  const auto decoded = decode(bytes_of(copy));
  RC_ASSERT(!decoded);
  RC_ASSERT(decoded.error().code == -EBADMSG);
  RC_ASSERT(decoded.error().text.find('\n') == std::string::npos);
}

template <class Entry>
void round_trip(const Entry &entry, const std::function<Result<Entry>(Bytes)> &decode) {
  Payload payload = encode(entry);
  const auto decoded = decode(bytes_of(payload));
  RC_ASSERT(decoded.ok());
  RC_ASSERT(*decoded == entry);
  for (std::size_t size = 0; size < payload.size(); ++size)
    refuse(decode, Payload(payload.begin(), payload.begin() + static_cast<std::ptrdiff_t>(size)));
  payload.push_back(*rc::gen::arbitrary<bool>() ? std::byte{0} : std::byte{'x'});
  refuse(decode, payload);
}

TEST(LogEntriesTest, come_back_as_written_and_are_refused_cut_or_with_more) {
  EXPECT_TRUE(rc::check("gap", [] { round_trip<GapEntry>(any_gap(), decode_gap); }));
  EXPECT_TRUE(rc::check("mark", [] { round_trip<MarkEntry>(any_mark(), decode_mark); }));
  EXPECT_TRUE(rc::check("walk begin",
                        [] { round_trip<WalkBeginEntry>(any_walk_begin(), decode_walk_begin); }));
  EXPECT_TRUE(rc::check("look", [] { round_trip<LookEntry>(any_look(), decode_look); }));
  EXPECT_TRUE(
      rc::check("walk end", [] { round_trip<WalkEndEntry>(any_walk_end(), decode_walk_end); }));
  EXPECT_TRUE(rc::check("join", [] { round_trip<JoinEntry>(any_join(), decode_join); }));
}

/* What is accepted is written so. */
template <class Entry>
void only_as_written(const Payload &payload, const std::function<Result<Entry>(Bytes)> &decode) {
  const auto decoded = decode(bytes_of(payload));
  if (decoded) RC_ASSERT(encode(*decoded) == payload);
}

TEST(LogEntriesTest, other_bytes_are_refused) {
  EXPECT_TRUE(rc::check("any bytes", [] {
    Payload payload;
    for (const std::uint8_t byte : *rc::gen::arbitrary<std::vector<std::uint8_t>>())
      payload.push_back(std::byte{byte});
    only_as_written<GapEntry>(payload, decode_gap);
    only_as_written<MarkEntry>(payload, decode_mark);
    only_as_written<WalkBeginEntry>(payload, decode_walk_begin);
    only_as_written<LookEntry>(payload, decode_look);
    only_as_written<WalkEndEntry>(payload, decode_walk_end);
    only_as_written<JoinEntry>(payload, decode_join);
  }));
  EXPECT_TRUE(rc::check("a changed byte", [] {
    Payload payload = encode(any_walk_end());
    payload[*rc::gen::inRange<std::size_t>(0, payload.size())] =
        std::byte{*rc::gen::arbitrary<std::uint8_t>()};
    only_as_written<WalkEndEntry>(payload, decode_walk_end);
  }));
}

TEST(LogEntriesTest, a_length_is_not_trusted) {
  for (const std::uint8_t high : {0x00, 0x7f, 0xff}) {
    Payload payload = encode(GapEntry{7, "because"});
    payload[8] = std::byte{0xff};
    for (std::size_t i = 9; i < 12; ++i) payload[i] = std::byte{high};
    const auto decoded = decode_gap(bytes_of(payload));
    ASSERT_FALSE(decoded.ok());
    EXPECT_EQ(decoded.error().code, -EBADMSG);
  }
}

TEST(LogEntriesTest, are_little_endian) {
  const Payload payload = encode(LookEntry{0x0102030405060708, 0x0a0b0c0d, "d\xff"});
  const std::string text(reinterpret_cast<const char *>(payload.data()), payload.size());
  EXPECT_EQ(text,
            std::string("\x08\x07\x06\x05\x04\x03\x02\x01\x0d\x0c\x0b\x0a\x02\0\0\0d\xff", 18));
}

}  // namespace
}  // namespace tarn
