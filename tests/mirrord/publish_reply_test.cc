// SPDX-License-Identifier: GPL-2.0
// The servers' answers to messages, as 2.9 sends them.
#include "mirrord/stream/publish_reply.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace tarn {
namespace {

int code_of(std::string_view reply) {
  const auto number = parse_publish_reply(reply);
  return number ? 0 : number.error().code;
}

TEST(PublishReplyTest, TheNumberOrTheReason) {
  EXPECT_EQ(*parse_publish_reply(R"({"stream":"data", "domain":"d", "seq":12})"), 12U);
  EXPECT_EQ(*parse_publish_reply(R"({"stream":"data","seq":7,"duplicate": true})"), 7U);
  const auto error = [](int code) {
    return R"({"error":{"code":400,"err_code":)" + std::to_string(code) +
           R"(,"description":"the reason"},"stream":"data","seq":0})";
  };
  EXPECT_EQ(code_of(error(10070)), -EAGAIN);
  EXPECT_EQ(code_of(error(10071)), -EAGAIN);
  EXPECT_EQ(code_of(error(10077)), -ENOSPC);
  EXPECT_EQ(code_of(error(10047)), -ENOSPC);
  EXPECT_EQ(code_of(error(10054)), -EIO);
  EXPECT_NE(parse_publish_reply(error(10077)).error().text.find("the reason"), std::string::npos);
}

TEST(PublishReplyTest, WhatIsNoAnswerIsRefused) {
  for (const char *reply : {"", "{", "{}", "[]", "12", R"({"seq":-1})", R"({"seq":1.5})",
                            R"({"seq":"1"})", R"({"error":{}})", "{\"seq\":1}x"})
    EXPECT_EQ(code_of(reply), -EIO) << reply;
  EXPECT_EQ(code_of(std::string(20'000, ' ') + R"({"seq":1})"), -EIO);
}

}  // namespace
}  // namespace tarn
