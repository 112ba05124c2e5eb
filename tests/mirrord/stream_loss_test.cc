// SPDX-License-Identifier: GPL-2.0
// What the servers lose of a stream is sent again, and each replica takes it once. With a real
// server.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/mirrord/nats_kit.h"

namespace tarn::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using State = StreamPublisher::State;

/* A replica that has what was there before a server loses its storage. */
class StreamLossTest : public testing::Test {
 protected:
  StreamLossTest() {
    entries_.append(100, 1000);
    EXPECT_EQ(consume(consumer_, entries_, 101), range(1, 101));
  }
  /* Both leave the server killed. */
  void keep_store() {
    server_.kill();
    fs::copy(server_.store(), backup_ / "store", fs::copy_options::recursive);
  }
  void restore_store() {
    server_.kill();
    fs::remove_all(server_.store());
    fs::copy(backup_ / "store", server_.store(), fs::copy_options::recursive);
  }

  NatsServer server_;
  const Scratch backup_;
  Entries entries_;
  Publishing publishing_{server_.config(), entries_};
  Connection connection_{server_.config(), "replica"};
  StreamConsumer consumer_{connection_, "one", begin_of(entries_)};
};

TEST_F(StreamLossTest, AStorageThatIsLostIsFilledAgain) {
  server_.kill();
  fs::remove_all(server_.store());
  server_.start();
  entries_.append(50, 1000);
  EXPECT_EQ(consume(consumer_, entries_, 151), range(101, 151));
  // Everything is there, for who has less.
  StreamConsumer other(connection_, "two", begin_of(entries_, 31));
  EXPECT_EQ(consume(other, entries_, 151), range(31, 151));
  EXPECT_EQ(publishing_.status().gaps, 0U);
}

TEST_F(StreamLossTest, AnOldCopyOfTheStorageIsFilledAgain) {
  keep_store();
  server_.start();
  entries_.append(100, 1000);
  EXPECT_EQ(consume(consumer_, entries_, 201), range(101, 201));
  restore_store();
  server_.start();
  entries_.append(100, 1000);
  EXPECT_EQ(consume(consumer_, entries_, 301), range(201, 301));
  StreamConsumer other(connection_, "two", begin_of(entries_));
  EXPECT_EQ(consume(other, entries_, 301), range(1, 301));
  EXPECT_EQ(publishing_.status().gaps, 0U);
}

/* A server that has removed more than it had, as one does that was started again without its end,
 * says one thing and counts from another. */
TEST_F(StreamLossTest, AStreamWhoseServerContradictsItselfIsMadeAnew) {
  Admin admin(server_);
  ASSERT_TRUE(admin->purge(1000));
  ASSERT_EQ(admin->extent()->last, 999U);
  entries_.append(50, 1000);
  EXPECT_EQ(consume(consumer_, entries_, 151), range(101, 151));
  entries_.append(50, 1000);
  EXPECT_EQ(consume(consumer_, entries_, 201), range(151, 201));
  EXPECT_TRUE(publishing_.done());
  EXPECT_EQ(publishing_.status().gaps, 0U);
}

/* The stream lacks then what the log has no more. */
TEST_F(StreamLossTest, AnOldCopyFromBeforeWhatTheLogKeepsIsAGapForWhomItConcernsOnly) {
  keep_store();
  for (const std::uint64_t gaps : {0U, 1U}) {
    server_.start();
    const LogPosition from = entries_.end();
    entries_.append(100, 1000);
    EXPECT_EQ(consume(consumer_, entries_, from + 100), range(from, from + 100));
    restore_store();
    if (gaps == 0) publishing_.publisher().release(from + 100);
    entries_.release(from + 50);
    server_.start();
    entries_.append(10, 1000);
    EXPECT_EQ(consume(consumer_, entries_, from + 110), range(from + 100, from + 110));
    EXPECT_EQ(publishing_.status().gaps, gaps);
    server_.kill();
  }
}

/* Entries that fill a message each, of which the servers lose those in the middle. */
class LostInTheMiddleTest : public testing::Test {
 protected:
  static constexpr std::size_t kSize = 150'000;

  /* Takes what is there before the hole, and waits for the rest. */
  void take_up_to_hole(StreamConsumer &consumer, LogPosition hole) {
    EXPECT_EQ(consume(consumer, entries_, 1000), range(1, hole));
    ASSERT_TRUE(consumer.hole());
    EXPECT_EQ(consumer.hole()->wanted.position, hole);
    consumer.await();
  }

  NatsServer server_;
  Entries entries_;
  Connection connection_{server_.config(), "replica"};
};

TEST_F(LostInTheMiddleTest, ItIsSentAgainOnceAndEachTakesIt) {
  entries_.append(20, kSize);
  Publishing publishing(server_.config(), entries_);
  ASSERT_TRUE(publishing.done());
  for (LogPosition position = 5; position < 9; ++position) Admin(server_).lose(entries_, position);
  StreamConsumer one(connection_, "one", begin_of(entries_));
  take_up_to_hole(one, 5);
  EXPECT_TRUE(one.fetch(milliseconds(100)).value().empty());
  publishing.publisher().send_again(5, one.received());
  EXPECT_EQ(consume(one, entries_, 21), range(5, 21));
  EXPECT_TRUE(publishing.done());
  EXPECT_EQ(publishing.status().messages, 20U + 16U);
  // It finds what was sent for the other one, from wherever it begins.
  StreamConsumer two(connection_, "two", begin_of(entries_));
  take_up_to_hole(two, 5);
  publishing.publisher().send_again(5, two.received());
  EXPECT_EQ(consume(two, entries_, 21), range(5, 21));
  for (LogPosition from = 5; from < 21; ++from) {
    StreamConsumer late(connection_, "late", begin_of(entries_, from));
    while (late.next()->position < 21) {
      const LogPosition next = late.next()->position;
      const auto taken = consume(late, entries_, 21);
      EXPECT_EQ(taken, range(next, late.next()->position));
      if (late.hole()) late.await();
    }
  }
  entries_.append(3, kSize);
  EXPECT_EQ(consume(one, entries_, 24), range(21, 24));
  EXPECT_TRUE(publishing.done());
  EXPECT_EQ(publishing.status().messages, 20U + 16U + 3U);
  EXPECT_EQ(publishing.status().gaps, 0U);
  // And what was sent twice goes when all have it.
  Admin admin(server_);
  publishing.publisher().release(24);
  EXPECT_TRUE(eventually([&] { return admin->extent()->messages == 1; }));
}

TEST_F(LostInTheMiddleTest, APublisherThatEndsMeanwhileIsFollowedByOneThatGoesOn) {
  entries_.append(20, kSize);
  StreamConsumer one(connection_, "one", begin_of(entries_));
  {
    Publishing publishing(server_.config(), entries_);
    ASSERT_TRUE(publishing.done());
    Admin(server_).lose(entries_, 5);
    take_up_to_hole(one, 5);
    publishing.publisher().send_again(5, one.received());
    consume(one, entries_, 6);
  }
  entries_.append(1, kSize);
  Publishing publishing(server_.config(), entries_);
  consume(one, entries_, 22);
  EXPECT_EQ(one.next()->position, 22U);
  EXPECT_FALSE(one.hole());
}

/* What waits behind the hole leaves no room for what is lost. */
TEST_F(LostInTheMiddleTest, AFullStreamTakesItAllTheSame) {
  StreamConfig config = server_.config();
  config.max_bytes = 3 << 20;
  Connection connection(config, "replica");
  entries_.append(40, kSize);
  Publishing publishing(config, entries_);
  ASSERT_TRUE(eventually([&] { return publishing.status().state == State::kFull; }));
  Admin(server_).lose(entries_, 5);
  StreamConsumer consumer(connection, "one", begin_of(entries_));
  take_up_to_hole(consumer, 5);
  publishing.publisher().release(3);  // another one has no more than that
  publishing.publisher().send_again(5, consumer.received());
  StreamConsumer other(connection, "two", begin_of(entries_, 3));
  for (LogPosition end = 5; end <= 41; end += 4) {
    const LogPosition from = consumer.next()->position;
    const auto taken = consume(consumer, entries_, end);
    EXPECT_EQ(taken, range(from, consumer.next()->position));
    for (; other.next()->position < end;) {
      consume(other, entries_, end);
      if (other.hole()) other.await();
    }
    publishing.publisher().release(std::min(consumer.next()->position, other.next()->position));
  }
  EXPECT_TRUE(publishing.done());
  EXPECT_EQ(publishing.status().gaps, 0U);
}

}  // namespace
}  // namespace tarn::test
