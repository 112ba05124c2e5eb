// SPDX-License-Identifier: GPL-2.0
// A source's log on its way to a stream: what is kept for which replica, and what is shown of them.
#include "mirrord/service/stream_target.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>

#include "tests/mirrord/log_kit.h"
#include "tests/mirrord/nats_kit.h"

namespace tarn::test {
namespace {

using std::chrono::milliseconds;
using Clock = StreamTarget::Clock;

class StreamTargetTest : public testing::Test {
 protected:
  std::unique_ptr<StreamTarget> open() {
    auto target = StreamTarget::open({.source = "data",
                                      .name = "others",
                                      .stream = server_.config(),
                                      .state_file = directory_ / "stream-others"},
                                     *log_);
    if (!target) throw std::runtime_error(target.error().text);
    return std::move(*target);
  }
  bool sent(const StreamTarget &target) {
    return eventually([&] { return target.wait(log_->end(), Clock::now()).ok(); });
  }
  ReplicaState applied(LogPosition position, std::uint32_t run = 0) const {
    return {{stream_epoch(log_->epoch(), run), position}, "following", ""};
  }

  NatsServer server_;
  LogDirectory directory_;
  std::unique_ptr<Log> log_ = open_log(directory_.log(), kSmallSegments);
};

TEST_F(StreamTargetTest, WhatIsInTheLogReachesAReplica) {
  append_many(*log_, 100);
  const auto target = open();
  EXPECT_EQ(target->reports().at(0).state, "starting");
  target->start();
  ASSERT_TRUE(sent(*target));
  EXPECT_EQ(log_->durable_end(), 101U);
  append_many(*log_, 20);
  Connection connection(server_.config(), "replica");
  StreamConsumer consumer(connection, "one", StreamPosition{log_->epoch(), 1});
  LogPosition next = 1;
  EXPECT_TRUE(eventually([&] {
    const auto entries = consumer.fetch(milliseconds(20));
    if (!entries) return false;
    for (const LogEntry &entry : *entries) {
      EXPECT_EQ(entry.position, next++);
      EXPECT_TRUE(is_as_appended(entry));
    }
    return next == 121;
  }));
  ASSERT_TRUE(sent(*target));
  EXPECT_TRUE(eventually([&] { return target->reports().at(0).state == "equal"; }));
  EXPECT_EQ(target->reports().at(0).position, 121U);
  EXPECT_EQ(target->reports().at(0).lag_entries, 0U);
}

TEST_F(StreamTargetTest, TheLogIsKeptForTheSlowestKnownReplica) {
  append_many(*log_, 100);
  {
    const auto target = open();
    EXPECT_EQ(target->needed(), 0U);  // nothing is known of the stream yet
    target->start();
    ASSERT_TRUE(sent(*target));
    EXPECT_EQ(target->needed(), 101U);
    ASSERT_TRUE(target->replica_reported("one", applied(40)));
    ASSERT_TRUE(target->replica_reported("two", applied(30)));
    // Another log's position: it compares all, and needs nothing of this one.
    ASSERT_TRUE(target->replica_reported("three", applied(3, 9)));
    EXPECT_EQ(target->needed(), 30U);
    ASSERT_TRUE(target->replica_reported("two", applied(60)));
    EXPECT_EQ(target->needed(), 40U);
    const auto reports = target->reports();
    ASSERT_EQ(reports.size(), 4U);
    EXPECT_EQ(reports[1].name, "others:one");
    EXPECT_EQ(reports[1].state, "following");
    EXPECT_EQ(reports[1].lag_entries, 61U);
  }
  const auto target = open();
  target->start();
  ASSERT_TRUE(sent(*target));
  EXPECT_EQ(target->needed(), 40U);
  EXPECT_EQ(target->reports().at(1).state, "away");
  EXPECT_EQ(target->retire("four").error().code, -ENOENT);
  ASSERT_TRUE(target->retire("one"));
  EXPECT_EQ(target->needed(), 60U);
  EXPECT_EQ(target->replica_reported("a/b", applied(1)).error().code, -EINVAL);
}

TEST_F(StreamTargetTest, AFullLogIsKeptForNobody) {
  append_many(*log_, 100);
  const auto target = open();
  target->start();
  ASSERT_TRUE(sent(*target));
  ASSERT_TRUE(target->replica_reported("one", applied(40)));
  EXPECT_EQ(target->needed(), 40U);
  target->drop_claim();
  EXPECT_EQ(target->needed(), 101U);
}

TEST_F(StreamTargetTest, WhatAllReplicasHaveLeavesTheStream) {
  append_many(*log_, 100);
  const auto target = open();
  target->start();
  ASSERT_TRUE(sent(*target));
  append_many(*log_, 100);
  ASSERT_TRUE(sent(*target));
  Connection connection(server_.config(), "admin");
  const auto first = [&] {
    auto engine = Engine::open(connection);
    if (!engine) return std::uint64_t{0};
    const auto extent = (*engine)->extent();
    return extent ? extent->first : 0;
  };
  target->tidy();
  EXPECT_EQ(first(), 1U);
  ASSERT_TRUE(target->replica_reported("one", applied(201)));
  target->tidy();
  EXPECT_TRUE(eventually([&] { return first() > 1; }));
}

TEST_F(StreamTargetTest, WhatTheStreamLacksIsSentAgainWhileTheLogHasIt) {
  append_many(*log_, 100);
  const auto target = open();
  target->start();
  ASSERT_TRUE(sent(*target));
  const auto again = [&](const Uuid &epoch, LogPosition position) {
    return target->send_again({epoch, position}, 1);
  };
  const LogPosition sent_before = target->reports().at(0).applied;
  EXPECT_EQ(again(stream_epoch(log_->epoch(), 1), 40).error().code, -ESTALE);
  EXPECT_EQ(again(log_->epoch(), 101).value(), false);
  EXPECT_EQ(again(log_->epoch(), 40).value(), true);
  EXPECT_TRUE(eventually([&] { return target->reports().at(0).applied == sent_before + 61; }));
  ASSERT_TRUE(sent(*target));
  ASSERT_TRUE(log_->release(90));
  ASSERT_GT(log_->first(), 40U);
  EXPECT_EQ(again(log_->epoch(), 40).value(), false);
  EXPECT_EQ(again(log_->epoch(), 95).value(), true);
}

TEST_F(StreamTargetTest, ALogThatIsMadeAnewBeginsARunThatIsKept) {
  append_many(*log_, 100);
  {
    const auto target = open();
    target->start();
    ASSERT_TRUE(sent(*target));
  }
  log_.reset();
  log_ = open_log(directory_ / "another", kSmallSegments);
  append_many(*log_, 10);
  for (int i = 0; i < 2; ++i) {
    const auto target = open();
    target->start();
    ASSERT_TRUE(sent(*target));
    Connection connection(server_.config(), "admin");
    const auto engine = Engine::open(connection);
    ASSERT_TRUE(engine);
    const auto last = (*engine)->last(*(*engine)->extent());
    ASSERT_TRUE(last && *last);
    EXPECT_EQ((*last)->run, 1U);
    EXPECT_EQ((*last)->behind.position, 11U);
    ASSERT_TRUE(target->replica_reported("one", applied(5, 1)));
    EXPECT_EQ(target->needed(), 5U);
  }
}

TEST_F(StreamTargetTest, ServersThatAreAwayShow) {
  append_many(*log_, 100);
  const auto target = open();
  server_.kill();
  target->start();
  EXPECT_TRUE(eventually([&] { return target->reports().at(0).state == "away"; }));
  EXPECT_NE(target->reports().at(0).last_error, "");
  EXPECT_EQ(target->wait(101, Clock::now()).error().code, -EIO);
  EXPECT_EQ(target->needed(), 0U);
  server_.start();
  EXPECT_TRUE(sent(*target));
  EXPECT_TRUE(eventually([&] { return target->reports().at(0).last_error.empty(); }));
}

TEST_F(StreamTargetTest, AStateThatCannotBeUsedIsRefused) {
  std::ofstream(directory_ / "stream-others") << "{}";
  const auto target = StreamTarget::open({.source = "data",
                                          .name = "others",
                                          .stream = server_.config(),
                                          .state_file = directory_ / "stream-others"},
                                         *log_);
  ASSERT_FALSE(target);
  EXPECT_EQ(target.error().code, -EBADMSG);
}

}  // namespace
}  // namespace tarn::test
