// SPDX-License-Identifier: GPL-2.0
// Messages of the stream: entries come back as they were, whatever their sizes, in whichever
// messages, and nothing else is accepted.
#include "mirrord/stream/format.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <cerrno>
#include <cstring>

#include "mirrord/stream/assembler.h"
#include "mirrord/stream/packer.h"

namespace tarn {
namespace {

using Payload = std::vector<std::byte>;

constexpr std::size_t kSmallMessage = sizeof(MessageHeader) + 100;

Uuid log_id() {
  Uuid log;
  for (std::size_t i = 0; i < log.bytes.size(); ++i)
    log.bytes[i] = static_cast<std::uint8_t>(i + 1);
  return log;
}

/* What an entry is made of, with a payload of its own. */
struct Made {
  LogEntry entry;
  Payload payload;
};

std::vector<Made> entries_of(const std::vector<std::size_t> &sizes, LogPosition first = 1) {
  std::vector<Made> made;
  for (const std::size_t size : sizes) {
    Made one;
    const LogPosition position = first + made.size();
    for (std::size_t i = 0; i < size; ++i)
      one.payload.push_back(static_cast<std::byte>(position * 31 + i * i / 7));
    one.entry = {position,
                 static_cast<std::int64_t>(position) * 1000 - 5,
                 static_cast<std::uint8_t>(position % 7),
                 {}};
    made.push_back(std::move(one));
  }
  for (Made &one : made) one.entry.payload = one.payload;
  return made;
}

std::vector<PackedMessage> pack(const std::vector<Made> &made, std::size_t message_max,
                                Packing packing, std::uint32_t run = 0) {
  Packer packer(log_id(), run, message_max, packing);
  std::vector<PackedMessage> messages;
  for (const Made &one : made) {
    if (packer.add(one.entry)) continue;
    if (!packer.empty()) messages.push_back(packer.take());
    if (packer.add(one.entry)) continue;
    for (StreamPlace at{one.entry.position, 0}; at.position == one.entry.position;) {
      messages.push_back(packer.piece(one.entry, at.offset));
      at = messages.back().behind;
    }
  }
  if (!packer.empty()) messages.push_back(packer.take());
  return messages;
}

bool same(const LogEntry &a, const LogEntry &b) {
  return a.position == b.position && a.time_ns == b.time_ns && a.kind == b.kind &&
         a.payload.size() == b.payload.size() &&
         std::equal(a.payload.begin(), a.payload.end(), b.payload.begin());
}

/* Gives each message to the assembler; each entry has to be the one that belongs at its place. */
std::vector<LogPosition> take_all(Assembler &assembler, const std::vector<PackedMessage> &messages,
                                  const std::vector<Made> &made) {
  std::vector<LogPosition> taken;
  for (const PackedMessage &message : messages) {
    for (const LogEntry &entry : assembler.take(message.bytes)) {
      EXPECT_TRUE(same(entry, made.at(entry.position - 1).entry)) << entry.position;
      taken.push_back(entry.position);
    }
    if (assembler.stopped()) break;
  }
  return taken;
}

std::vector<LogPosition> positions(LogPosition first, LogPosition end) {
  std::vector<LogPosition> all;
  for (; first < end; ++first) all.push_back(first);
  return all;
}

TEST(StreamFormatTest, BytesAreThoseOfTheDocument) {
  const auto made = entries_of({3});
  StreamMessage message;
  message.log = log_id();
  const MessageEntryHeader head = {.time_ns = 0, .length = 3, .kind = 3, .zero = {}};
  Payload body(sizeof(head) + 3);
  std::memcpy(body.data(), &head, sizeof(head));
  std::memcpy(body.data() + sizeof(head), "abc", 3);
  const Payload bytes = encode_message(message, 1, body, Packing::kNone);
  const unsigned char expected[] = {
      't',  'a',  'r',  'n',  'm',  's',  'g',  '\n', 0,    0,    0,    0,    0,    0,
      0,    0,    0x01, 0,    0,    0,    0x01, 0,    0,    0,    0x01, 0x02, 0x03, 0x04,
      0x05, 0x06, 0x07, 0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f, 0x10, 0x01, 0,
      0,    0,    0,    0,    0,    0,    0x01, 0,    0,    0,    0,    0,    0,    0,
      0x13, 0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,
      0,    0,    0x03, 0,    0,    0,    0x03, 0,    0,    0,    'a',  'b',  'c'};
  ASSERT_EQ(bytes.size(), sizeof(expected));
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i >= 8 && i < 16) continue;  // the checksum
    EXPECT_EQ(static_cast<unsigned char>(bytes[i]), expected[i]) << i;
  }
  std::uint64_t checksum = 0;
  std::memcpy(&checksum, bytes.data() + 8, sizeof(checksum));
  EXPECT_EQ(checksum, 0x7e4d92f54781d326ULL);
  EXPECT_EQ(message_id(message), "01020304-0506-0708-090A-0B0C0D0E0F10-1");
}

TEST(StreamFormatTest, AnyEntriesComeBackFromMessagesOfAnySize) {
  rc::check([] {
    const auto sizes = *rc::gen::container<std::vector<std::size_t>>(rc::gen::inRange(0, 900));
    const std::size_t most = *rc::gen::inRange<std::size_t>(sizeof(MessageHeader) + 17, 700);
    const Packing packing = *rc::gen::element(Packing::kNone, Packing::kZstd);
    const auto made = entries_of(sizes);
    const auto messages = pack(made, most, packing);
    for (const PackedMessage &message : messages) RC_ASSERT(message.bytes.size() <= most);
    Assembler assembler(StreamPosition{log_id(), 1});
    RC_ASSERT(take_all(assembler, messages, made) == positions(1, made.size() + 1));
  });
}

TEST(StreamFormatTest, SmallEntriesShareAMessageAndLargeOnesAreCut) {
  const auto made = entries_of({10, 10, 10, 500, 10});
  const auto messages = pack(made, kSmallMessage, Packing::kNone);
  ASSERT_EQ(messages.size(), 8U);  // three entries; 516 bytes in pieces of 100; one entry
  EXPECT_EQ(messages[0].behind, (StreamPlace{4, 0}));
  EXPECT_EQ(messages[1].behind, (StreamPlace{4, 100}));
  EXPECT_TRUE(messages[1].id.ends_with("-4/0")) << messages[1].id;
  EXPECT_TRUE(messages[2].id.ends_with("-4/100")) << messages[2].id;
  EXPECT_EQ(messages[6].behind, (StreamPlace{5, 0}));
}

TEST(StreamFormatTest, TheLargestEntryPasses) {
  std::vector<Made> made(1);
  made[0].payload.assign(64 << 20, std::byte{7});
  made[0].entry = {1, 5, 1, made[0].payload};
  const auto messages = pack(made, 1 << 20, Packing::kZstd);
  EXPECT_EQ(messages.size(), 257U);
  Assembler assembler(std::nullopt);
  EXPECT_EQ(take_all(assembler, messages, made), positions(1, 2));
}

TEST(StreamFormatTest, PackedIsSmallerOrNotPacked) {
  std::vector<Made> plain(1);
  plain[0].payload.assign(1000, std::byte{'a'});
  plain[0].entry = {1, 5, 1, plain[0].payload};
  EXPECT_LT(pack(plain, 4096, Packing::kZstd)[0].bytes.size(), 200U);
  EXPECT_GT(pack(plain, 4096, Packing::kNone)[0].bytes.size(), 1000U);
  std::uint64_t state = 1;
  for (std::byte &byte : plain[0].payload)
    byte =
        static_cast<std::byte>((state = state * 6364136223846793005U + 1442695040888963407U) >> 56);
  EXPECT_EQ(pack(plain, 4096, Packing::kZstd)[0].bytes, pack(plain, 4096, Packing::kNone)[0].bytes);
}

TEST(StreamFormatTest, NoChangedByteIsAccepted) {
  const auto made = entries_of({5, 80});
  for (const Packing packing : {Packing::kNone, Packing::kZstd}) {
    const auto bytes = pack(made, 4096, packing)[0].bytes;
    MessageDecoder decoder;
    ASSERT_TRUE(decoder.decode(bytes));
    for (std::size_t at = 0; at < bytes.size(); ++at) {
      Payload changed = bytes;
      changed[at] ^= std::byte{0x10};
      EXPECT_FALSE(decoder.decode(changed)) << at;
      EXPECT_FALSE(decoder.decode(Bytes(bytes).first(at))) << at;
    }
  }
}

TEST(StreamFormatTest, AnotherVersionSaysWhatToDo) {
  const auto made = entries_of({5});
  auto bytes = pack(made, 4096, Packing::kNone)[0].bytes;
  bytes[offsetof(MessageHeader, version)] = std::byte{9};
  seal_message(bytes);
  MessageDecoder decoder;
  const auto message = decoder.decode(bytes);
  ASSERT_FALSE(message);
  EXPECT_EQ(message.error().code, -EPROTO);
  EXPECT_NE(message.error().text.find("update"), std::string::npos) << message.error().text;
}

/* However often messages come, and from wherever they come again: each entry once. */
TEST(StreamFormatTest, MessagesThatComeAgainChangeNothing) {
  rc::check([] {
    const auto sizes =
        *rc::gen::nonEmpty(rc::gen::container<std::vector<std::size_t>>(rc::gen::inRange(0, 300)));
    const auto made = entries_of(sizes);
    // The same entries, cut differently each time.
    const auto one = pack(made, kSmallMessage, Packing::kNone);
    const auto other = pack(made, kSmallMessage + 57, Packing::kNone);
    Assembler assembler(StreamPosition{log_id(), 1});
    std::vector<LogPosition> taken;
    std::size_t reached = 0;
    while (reached < one.size()) {
      const std::size_t from = *rc::gen::inRange<std::size_t>(0, reached + 1);
      const std::size_t to = *rc::gen::inRange<std::size_t>(from + 1, one.size() + 1);
      const auto more = take_all(assembler,
                                 {one.begin() + static_cast<std::ptrdiff_t>(from),
                                  one.begin() + static_cast<std::ptrdiff_t>(to)},
                                 made);
      RC_ASSERT(!assembler.hole());
      taken.insert(taken.end(), more.begin(), more.end());
      reached = std::max(reached, to);
      if (reached < one.size() && *rc::gen::arbitrary<bool>()) {
        const auto rest = take_all(assembler, other, made);
        taken.insert(taken.end(), rest.begin(), rest.end());
        reached = one.size();
      }
    }
    RC_ASSERT(taken == positions(1, made.size() + 1));
  });
}

TEST(StreamFormatTest, NothingBehindAHoleIsGivenBeforeItIsAccepted) {
  const auto made = entries_of({10, 10, 10, 10, 10, 10, 10, 10, 10});
  auto messages = pack(made, kSmallMessage, Packing::kNone);
  ASSERT_EQ(messages.size(), 3U);
  messages.erase(messages.begin() + 1);
  Assembler assembler(StreamPosition{log_id(), 1});
  EXPECT_EQ(take_all(assembler, messages, made), positions(1, 4));
  ASSERT_TRUE(assembler.hole());
  EXPECT_EQ(assembler.hole()->kind, StreamHole::Kind::kMissing);
  EXPECT_EQ(assembler.hole()->wanted.position, 4U);
  EXPECT_EQ(assembler.hole()->found.position, 7U);
  EXPECT_NE(assembler.hole()->text.find("4 to 6"), std::string::npos);
  EXPECT_TRUE(take_all(assembler, {messages.back()}, made).empty());
  ASSERT_TRUE(assembler.hole());
  assembler.go_on();
  EXPECT_EQ(take_all(assembler, {messages.back()}, made), positions(7, 10));
  EXPECT_FALSE(assembler.hole());
}

TEST(StreamFormatTest, ALostPieceIsAHole) {
  const auto made = entries_of({10, 300, 10});
  auto messages = pack(made, kSmallMessage, Packing::kNone);
  ASSERT_EQ(messages.size(), 6U);
  messages.erase(messages.begin() + 2);
  Assembler assembler(StreamPosition{log_id(), 1});
  EXPECT_EQ(take_all(assembler, messages, made), positions(1, 2));
  ASSERT_TRUE(assembler.hole());
  EXPECT_EQ(assembler.hole()->wanted.position, 2U);
  EXPECT_EQ(assembler.hole()->found.position, 3U);
  assembler.go_on();
  EXPECT_EQ(take_all(assembler, {messages.begin() + 2, messages.end()}, made), positions(3, 4));
}

TEST(StreamFormatTest, WhatAHoleLacksIsTakenWhenItComesAgain) {
  const auto made = entries_of({10, 10, 10, 300, 10, 10, 10});
  const auto messages = pack(made, kSmallMessage, Packing::kNone);
  for (std::size_t lost = 0; lost < messages.size(); ++lost) {
    Assembler assembler(StreamPosition{log_id(), 1});
    auto rest = messages;
    rest.erase(rest.begin() + static_cast<std::ptrdiff_t>(lost));
    auto taken = take_all(assembler, rest, made);
    if (lost + 1 == messages.size()) continue;  // nobody can know
    ASSERT_TRUE(assembler.stopped());
    const StreamPosition wanted = assembler.hole()->wanted;
    assembler.await();
    EXPECT_TRUE(take_all(assembler, rest, made).empty());
    EXPECT_TRUE(assembler.awaits());
    EXPECT_EQ(assembler.next(), wanted);
    const auto more = take_all(assembler, messages, made);
    EXPECT_FALSE(assembler.awaits() || assembler.hole());
    taken.insert(taken.end(), more.begin(), more.end());
    EXPECT_EQ(taken, positions(1, made.size() + 1)) << "without message " << lost;
  }
}

TEST(StreamFormatTest, WhatIsAwaitedCanBeGivenUpAndEndsWithTheLog) {
  const auto made = entries_of({10, 10, 10, 10, 10, 10, 10, 10, 10});
  const auto messages = pack(made, kSmallMessage, Packing::kNone);
  const auto other = pack(made, kSmallMessage, Packing::kNone, 1);
  for (const bool gives_up : {true, false}) {
    Assembler assembler(StreamPosition{log_id(), 1});
    EXPECT_TRUE(take_all(assembler, {messages[1]}, made).empty());
    assembler.await();
    EXPECT_TRUE(take_all(assembler, {messages[2]}, made).empty());
    EXPECT_FALSE(assembler.stopped());
    if (gives_up) {
      assembler.go_on();
      EXPECT_EQ(take_all(assembler, {messages[1]}, made), positions(4, 7));
    } else {
      EXPECT_TRUE(take_all(assembler, other, made).empty());
      ASSERT_TRUE(assembler.stopped());
      EXPECT_EQ(assembler.hole()->kind, StreamHole::Kind::kOtherEpoch);
    }
  }
}

TEST(StreamFormatTest, AnotherLogAndAnotherRunAreHoles) {
  const auto made = entries_of({10, 10, 10});
  const auto first = pack(made, kSmallMessage, Packing::kNone, 0);
  const auto second = pack(made, kSmallMessage, Packing::kNone, 1);
  EXPECT_NE(first[0].id, second[0].id);
  Assembler assembler(StreamPosition{log_id(), 3});
  EXPECT_TRUE(take_all(assembler, second, made).empty());
  ASSERT_TRUE(assembler.hole());
  EXPECT_EQ(assembler.hole()->kind, StreamHole::Kind::kOtherEpoch);
  EXPECT_EQ(assembler.hole()->found, (StreamPosition{stream_epoch(log_id(), 1), 1}));
  assembler.go_on();
  EXPECT_EQ(take_all(assembler, second, made), positions(1, 4));
}

TEST(StreamFormatTest, ADamagedMessageIsAHole) {
  const auto made = entries_of({10, 10, 10, 10, 10, 10, 10, 10, 10});
  auto messages = pack(made, kSmallMessage, Packing::kNone);
  messages[1].bytes[70] ^= std::byte{1};
  Assembler assembler(StreamPosition{log_id(), 1});
  EXPECT_EQ(take_all(assembler, messages, made), positions(1, 4));
  ASSERT_TRUE(assembler.hole());
  EXPECT_EQ(assembler.hole()->kind, StreamHole::Kind::kDamaged);
  EXPECT_EQ(assembler.hole()->wanted.position, 4U);
  assembler.go_on();
  EXPECT_EQ(take_all(assembler, {messages.begin() + 1, messages.end()}, made), positions(7, 10));
}

TEST(StreamFormatTest, WhoBeginsInTheMiddleOfAnEntryBeginsBehindIt) {
  const auto made = entries_of({300, 10});
  auto messages = pack(made, kSmallMessage, Packing::kNone);
  messages.erase(messages.begin());
  Assembler assembler(std::nullopt);
  EXPECT_EQ(take_all(assembler, messages, made), positions(2, 3));
}

}  // namespace
}  // namespace tarn
