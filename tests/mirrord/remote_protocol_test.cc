// SPDX-License-Identifier: GPL-2.0
// Questions and answers about a source, as bytes.
#include "mirrord/remote/protocol.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace tarn::remote {
namespace {

std::string hex(const std::vector<std::byte> &bytes) {
  std::string text;
  for (const std::byte byte : bytes) {
    constexpr const char *kDigits = "0123456789abcdef";
    text += kDigits[static_cast<unsigned>(byte) >> 4];
    text += kDigits[static_cast<unsigned>(byte) & 15];
  }
  return text;
}

std::vector<Question> questions() {
  return {NowQuestion{},
          StatusQuestion{{"", "a", "d/e"}},
          ListQuestion{"d", {3, 9}, "last"},
          ReadQuestion{"d/f", {3, 9}, 1, ~std::uint64_t{0}},
          WalkQuestion{"replica", -5},
          MarkQuestion{},
          ReportQuestion{"replica", "epoch", "held", "why", 1, 2, 3, 4, 5},
          HashQuestion{"d/f", kBlockSize, 2 * kBlockSize},
          HolesQuestion{"d/f", 65536},
          AboutQuestion{},
          AgainQuestion{"epoch", 1, 2}};
}

const std::string kData = "some data";

std::vector<Answer> answers() {
  Found file;
  file.status.st_mode = 0100644;
  file.status.st_size = 5;
  file.status.st_mtim = {-1, 999'999'999};
  file.target = "target";
  file.xattrs = {{"user.a", "1"}, {"user.b", std::string("\0x", 2)}};
  Found absent;
  absent.error = ENOENT;
  ReadAnswer read;
  read.before.st_ino = 1;
  read.after.st_ino = 2;
  read.end = 100;
  const Bytes data = std::as_bytes(std::span(kData));
  read.pieces = {{0, data.first(4)}, {91, data}};
  return {Failure{EIO, "text"},
          NowAnswer{},
          StatusAnswer{{file, absent}},
          ListAnswer{true, {{"a", 1, true, false}, {"b", 2, false, true}}},
          read,
          WalkAnswer{},
          MarkAnswer{17},
          ReportAnswer{},
          HashAnswer{{1, 2, -3, 4}, {{5, 6}, {7, 8}}},
          HolesAnswer{true, {{0, 65536}, {131072, 65536}}},
          AboutAnswer{5, "/srv/data", {"/srv/data/tmp", "/srv/data/cache"}},
          AgainAnswer{true}};
}

TEST(RemoteProtocolTest, each_question_and_answer_is_what_it_was) {
  ASSERT_EQ(questions().size(), std::variant_size_v<Question>);
  for (const Question &question : questions()) {
    const auto bytes = encode(NumberedQuestion{42, question});
    const auto decoded = decode_question(bytes);
    ASSERT_TRUE(decoded.ok()) << decoded.error().text;
    EXPECT_EQ(decoded->number, 42u);
    EXPECT_EQ(decoded->question.index(), question.index());
    EXPECT_EQ(encode(*decoded), bytes);
  }
  ASSERT_EQ(answers().size(), std::variant_size_v<Answer>);
  for (const Answer &answer : answers()) {
    const auto bytes = encode(NumberedAnswer{42, -3, answer});
    const auto decoded = decode_answer(bytes);
    ASSERT_TRUE(decoded.ok()) << decoded.error().text;
    EXPECT_EQ(decoded->number, 42u);
    EXPECT_EQ(decoded->now, -3);
    EXPECT_EQ(decoded->answer.index(), answer.index());
    EXPECT_EQ(encode(*decoded), bytes);
  }
  const auto bytes = encode(NumberedAnswer{1, 1, answers()[4]});
  const auto read = decode_answer(bytes);
  const auto &pieces = std::get<ReadAnswer>(read->answer).pieces;
  EXPECT_EQ(std::memcmp(pieces[1].data.data(), kData.data(), kData.size()), 0);
}

/* Written out, for whoever reads them elsewhere. */
TEST(RemoteProtocolTest, the_bytes_of_a_question) {
  EXPECT_EQ(hex(encode(NumberedQuestion{258, StatusQuestion{{"d/f"}}})).substr(0, 42),
            "0102"
            "0201000000000000"
            "01000000"
            "03000000"
            "642f66");
}

TEST(RemoteProtocolTest, what_is_cut_damaged_or_longer_is_refused) {
  for (const Question &question : questions()) {
    auto bytes = encode(NumberedQuestion{42, question});
    for (std::size_t size = 0; size < bytes.size(); ++size)
      EXPECT_EQ(decode_question(Bytes(bytes).first(size)).error().code, -EBADMSG);
    for (std::size_t at = 1; at < bytes.size(); ++at) {
      auto damaged = bytes;
      damaged[at] ^= std::byte{1};
      EXPECT_EQ(decode_question(damaged).error().code, -EBADMSG) << at;
    }
    bytes.push_back(std::byte{0});
    EXPECT_EQ(decode_question(bytes).error().code, -EBADMSG);
  }
  for (const Answer &answer : answers()) {
    const auto bytes = encode(NumberedAnswer{42, 1, answer});
    for (std::size_t size = 0; size < bytes.size(); ++size)
      EXPECT_EQ(decode_answer(Bytes(bytes).first(size)).error().code, -EBADMSG);
  }
}

TEST(RemoteProtocolTest, another_version_says_what_to_do) {
  auto bytes = encode(NumberedQuestion{42, NowQuestion{}});
  bytes[0] = std::byte{2};
  const auto decoded = decode_question(bytes);
  ASSERT_FALSE(decoded.ok());
  EXPECT_EQ(decoded.error().code, -EPROTONOSUPPORT);
  EXPECT_EQ(decoded.error().text,
            "a question about the source has version 2, not 1: install the same version of mirrord "
            "on both hosts");
}

/* An answer's fields that no source has: a replica must not take them. */
TEST(RemoteProtocolTest, refuses_fields_that_cannot_be) {
  const auto refused = [](const Answer &answer) {
    const auto decoded = decode_answer(encode(NumberedAnswer{1, 1, answer}));
    return !decoded.ok() && decoded.error().code == -EBADMSG;
  };
  for (const char *name : {"", "..", ".", "a/b", "/"})
    EXPECT_TRUE(refused(ListAnswer{false, {{name, 1, false, false}}})) << name;
  EXPECT_TRUE(refused(ListAnswer{false, {{std::string("a\0b", 3), 1, false, false}}}));
  EXPECT_TRUE(refused(AboutAnswer{1, "srv/data", {}}));
  EXPECT_TRUE(refused(AboutAnswer{1, "/srv/data", {"tmp"}}));
  Found found;
  found.status.st_mtim.tv_nsec = 1'000'000'000;
  EXPECT_TRUE(refused(StatusAnswer{{found}}));
  found.status.st_mtim.tv_nsec = 0;
  found.status.st_size = -1;
  EXPECT_TRUE(refused(StatusAnswer{{found}}));
  ReadAnswer read;
  const Bytes data = std::as_bytes(std::span(kData));
  read.end = 5;
  read.pieces = {{0, data}};  // behind its end
  EXPECT_TRUE(refused(read));
  read.end = 100;
  read.pieces = {{0, data}, {5, data}};  // one over the other
  EXPECT_TRUE(refused(read));
  read.pieces = {{~std::uint64_t{0}, data}};
  EXPECT_TRUE(refused(read));
  EXPECT_TRUE(refused(Failure{0, ""}));
}

}  // namespace
}  // namespace tarn::remote
