// SPDX-License-Identifier: GPL-2.0
// Entries go from a log through a server to replicas: each once, in order, whatever happens to the
// server, its storage and the wire. With a real server.
#include <gtest/gtest.h>

#include <cerrno>
#include <random>

#include "mirrord/stream/nats_owner.h"
#include "tests/mirrord/nats_kit.h"

namespace tarn::test {
namespace {

using std::chrono::milliseconds;
using State = StreamPublisher::State;

TEST(StreamTest, EntriesOfAllSizesArriveOnceAndInOrder) {
  NatsServer server;
  for (const bool compress : {false, true}) {
    StreamConfig config = server.config();
    config.stream = compress ? "packed" : "plain";
    config.compress = compress;
    Entries entries;
    entries.append(500, 10);
    entries.append(3, 3 << 20);  // more than the server takes in a message
    entries.append(200, 5000);
    entries.append(1, 0);
    Publishing publishing(config, entries);
    Connection connection(config, "replica");
    StreamConsumer consumer(connection, "one", begin_of(entries));
    EXPECT_EQ(consume(consumer, entries, 705), range(1, 705));
    entries.append(10, 10);
    EXPECT_EQ(consume(consumer, entries, 715), range(705, 715));
    const auto status = publishing.status();
    EXPECT_TRUE(publishing.done());
    EXPECT_EQ(publishing.status().entries, 714U);
    EXPECT_LT(publishing.status().messages, 100U);
    EXPECT_EQ(publishing.status().gaps, 0U);
  }
}

TEST(StreamTest, AServerWithSmallMessagesTakesAll) {
  NatsServer server("max_payload: 8192");
  Entries entries;
  entries.append(50, 100);
  entries.append(2, 100'000);
  Publishing publishing(server.config(), entries);
  Connection connection(server.config(), "replica");
  StreamConsumer consumer(connection, "one", begin_of(entries));
  EXPECT_EQ(consume(consumer, entries, 53), range(1, 53));
}

TEST(StreamTest, APublisherGoesOnBehindTheLastMessage) {
  NatsServer server;
  Entries entries;
  entries.append(300, 1000);
  for (int i = 0; i < 3; ++i) {
    {
      Publishing publishing(server.config(), entries);
      EXPECT_TRUE(publishing.done());
      EXPECT_EQ(publishing.status().entries, i == 0 ? 300U : 10U);
    }
    entries.append(i < 2 ? 10 : 0, 1000);
  }
  Connection connection(server.config(), "replica");
  StreamConsumer consumer(connection, "one", begin_of(entries));
  EXPECT_EQ(consume(consumer, entries, 321), range(1, 321));
}

TEST(StreamTest, AnEntryInPiecesIsGoneOnWithInItsMiddle) {
  NatsServer server("max_payload: 8192");
  Entries entries;
  entries.append(1, 60'000);
  StreamConfig config = server.config();
  {
    Publishing publishing(config, entries);
    EXPECT_TRUE(publishing.done());
  }
  Admin admin(server);
  ASSERT_GT(admin->extent()->messages, 5U);
  // The server forgets the last pieces.
  for (std::uint64_t last = admin->extent()->last, i = 0; i < 3; ++i)
    ASSERT_EQ(js_DeleteMsg(admin->context(), "data", last - i, nullptr, nullptr), NATS_OK);
  Publishing publishing(config, entries);
  EXPECT_TRUE(publishing.done());
  EXPECT_EQ(publishing.status().messages, 3U);
  Connection connection(config, "replica");
  StreamConsumer consumer(connection, "one", begin_of(entries));
  EXPECT_EQ(consume(consumer, entries, 2), range(1, 2));
}

TEST(StreamTest, AServerThatIsKilledLosesNothing) {
  NatsServer server;
  Entries entries;
  Publishing publishing(server.config(), entries);
  Connection connection(server.config(), "replica");
  StreamConsumer consumer(connection, "one", begin_of(entries));
  for (LogPosition i = 0; i < 4; ++i) {
    entries.append(200, 3000);
    const LogPosition some = i * 200 + 20;
    EXPECT_TRUE(eventually([&] { return publishing.status().position > some; }));
    server.kill();
    entries.append(0);
    server.start();
    EXPECT_EQ(consume(consumer, entries, i * 200 + 201), range(i * 200 + 1, i * 200 + 201));
  }
  EXPECT_EQ(publishing.status().gaps, 0U);
}

TEST(StreamTest, AWireThatIsCutLosesNothing) {
  NatsServer server;
  Wire source_wire(server), replica_wire(server);
  StreamConfig there = server.config(), here = server.config();
  there.servers = {source_wire.url()};
  here.servers = {replica_wire.url()};
  Entries entries;
  Publishing publishing(there, entries);
  Connection connection(here, "replica");
  StreamConsumer consumer(connection, "one", begin_of(entries));
  std::minstd_rand random(7);
  LogPosition end = 1;
  for (int i = 0; i < 8; ++i) {
    const int source_cuts = source_wire.cuts(), replica_cuts = replica_wire.cuts();
    source_wire.cut_after(static_cast<std::int64_t>(random() % 200'000));
    replica_wire.cut_after(static_cast<std::int64_t>(random() % 200'000));
    entries.append(100, 5000);
    end += 100;
    EXPECT_EQ(consume(consumer, entries, end), range(end - 100, end));
    EXPECT_GT(source_wire.cuts(), source_cuts);
    EXPECT_GT(replica_wire.cuts(), replica_cuts);
  }
  EXPECT_TRUE(publishing.done());
  EXPECT_EQ(publishing.status().gaps, 0U);
}

TEST(StreamTest, AFullStreamKeepsThePublisherUntilThereIsRoom) {
  NatsServer server;
  StreamConfig config = server.config();
  config.max_bytes = 1 << 20;
  Entries entries;
  entries.append(2000, 1000);
  Publishing publishing(config, entries);
  EXPECT_TRUE(eventually([&] { return publishing.status().state == State::kFull; }));
  EXPECT_NE(publishing.status().error.find("max-bytes"), std::string::npos)
      << publishing.status().error;
  const LogPosition reached = publishing.status().position;
  EXPECT_GT(reached, 100U);
  EXPECT_LT(reached, 2000U);
  Connection connection(config, "replica");
  StreamConsumer consumer(connection, "one", begin_of(entries));
  while (consumer.next()->position < 2001) {
    const LogPosition from = consumer.next()->position;
    const LogPosition to = std::min<LogPosition>(from + 500, 2001);
    const auto taken = consume(consumer, entries, to);
    EXPECT_EQ(taken, range(from, consumer.next()->position));
    ASSERT_FALSE(consumer.hole());
    publishing.publisher().release(consumer.next()->position);
  }
  EXPECT_TRUE(publishing.done());
  EXPECT_EQ(publishing.status().gaps, 0U);
}

TEST(StreamTest, AStreamWithOtherSettingsIsRefusedAndSaysWhich) {
  NatsServer server;
  StreamConfig config = server.config();
  Connection connection(config, "test");
  auto engine = Engine::open(connection);
  ASSERT_TRUE(engine) << engine.error().text;
  ASSERT_TRUE((*engine)->ensure_stream());
  ASSERT_TRUE((*engine)->ensure_stream());
  config.max_bytes = 1 << 20;
  Connection other(config, "test");
  const auto refused = (*Engine::open(other))->ensure_stream();
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code, -EINVAL);
  EXPECT_NE(refused.error().text.find("1048576"), std::string::npos) << refused.error().text;

  ASSERT_EQ(js_DeleteStream((*engine)->context(), "data", nullptr, nullptr), NATS_OK);
  jsStreamConfig made;
  jsStreamConfig_Init(&made);
  const char *subjects[] = {"tarn.data.log"};
  made.Name = "data";
  made.Subjects = subjects;
  made.SubjectsLen = 1;
  made.Replicas = 1;
  made.MaxBytes = 64 << 20;
  ASSERT_EQ(js_AddStream(nullptr, (*engine)->context(), &made, nullptr, nullptr), NATS_OK);
  const auto drops = (*engine)->ensure_stream();
  ASSERT_FALSE(drops);
  EXPECT_NE(drops.error().text.find("discard new"), std::string::npos) << drops.error().text;

  config = server.config();
  config.stream = "three";
  config.replicas = 3;
  Connection cluster(config, "test");
  const auto alone = (*Engine::open(cluster))->ensure_stream();
  ASSERT_FALSE(alone);
  EXPECT_NE(alone.error().text.find("'replicas'"), std::string::npos) << alone.error().text;
}

TEST(StreamTest, AnotherLogBehindTheStreamIsANewRunAndAHole) {
  NatsServer server;
  Entries old(1), entries(2);
  old.append(10);
  entries.append(5);
  {
    Publishing publishing(server.config(), old);
    EXPECT_TRUE(publishing.done());
  }
  Publishing publishing(server.config(), entries);
  EXPECT_TRUE(publishing.done());
  EXPECT_EQ(publishing.kept_run(), 1U);
  EXPECT_EQ(publishing.status().gaps, 1U);
  Connection connection(server.config(), "replica");
  StreamConsumer consumer(connection, "one", begin_of(old, 6));
  EXPECT_TRUE(consume(consumer, old, 11).empty());
  ASSERT_TRUE(consumer.hole());
  EXPECT_EQ(consumer.hole()->kind, StreamHole::Kind::kOtherEpoch);
  EXPECT_EQ(consumer.hole()->found, begin_of(entries, 1, 1));
  EXPECT_EQ(consumer.fetch(milliseconds(1)).error().code, -ENODATA);
  consumer.go_on();
  EXPECT_EQ(consume(consumer, entries, 6), range(1, 6));
}

/* Even if it has grown beyond the stream's last message before that is looked at. */
TEST(StreamTest, ALogThatHasLostItsEndAndGrownBeginsANewRun) {
  NatsServer server;
  Entries entries;
  entries.append(20);
  Connection connection(server.config(), "replica");
  StreamConsumer consumer(connection, "one", begin_of(entries));
  {
    Publishing publishing(server.config(), entries);
    EXPECT_EQ(consume(consumer, entries, 21), range(1, 21));
  }
  entries.cut(10, 1);
  entries.append(30);
  Publishing publishing(server.config(), entries, 0, 10);
  EXPECT_TRUE(publishing.done());
  EXPECT_EQ(publishing.kept_run(), 1U);
  EXPECT_TRUE(consume(consumer, entries, 1000).empty());
  ASSERT_TRUE(consumer.hole());
  consumer.go_on();
  EXPECT_EQ(consume(consumer, entries, 40), range(1, 40));
}

TEST(StreamTest, ALogThatHasLostItsEndBeginsANewRun) {
  NatsServer server;
  Entries entries;
  entries.append(20);
  Connection connection(server.config(), "replica");
  StreamConsumer ahead(connection, "ahead", begin_of(entries)),
      behind(connection, "behind", begin_of(entries));
  {
    Publishing publishing(server.config(), entries);
    EXPECT_EQ(consume(ahead, entries, 21), range(1, 21));
    EXPECT_EQ(consume(behind, entries, 21), range(1, 21));
  }
  // A backup of the source's state is restored, and other things happen.
  entries.cut(10, 1);
  entries.append(5);
  Publishing publishing(server.config(), entries);
  EXPECT_TRUE(publishing.done());
  EXPECT_EQ(publishing.kept_run(), 1U);
  for (StreamConsumer *consumer : {&ahead, &behind}) {
    EXPECT_TRUE(consume(*consumer, entries, 1000).empty());
    ASSERT_TRUE(consumer->hole());
    EXPECT_EQ(consumer->hole()->found, begin_of(entries, 1, 1));
    consumer->go_on();
    EXPECT_EQ(consume(*consumer, entries, 15), range(1, 15));
  }
  // A publisher that knows of the run goes on in it.
  entries.append(5);
  EXPECT_EQ(consume(ahead, entries, 20), range(15, 20));
}

TEST(StreamTest, ARunGoesOnAfterARestart) {
  NatsServer server;
  Entries entries;
  entries.append(20);
  {
    Publishing publishing(server.config(), entries, 4);
    EXPECT_TRUE(publishing.done());
  }
  {
    Publishing publishing(server.config(), entries, 4);
    EXPECT_TRUE(publishing.done());
    EXPECT_EQ(publishing.status().gaps, 0U);
  }
  // One that has forgotten it does not take the stream's entries for its own.
  Publishing publishing(server.config(), entries, 2);
  EXPECT_TRUE(publishing.done());
  EXPECT_EQ(publishing.kept_run(), 5U);
}

TEST(StreamTest, EntriesThatTheLogHasNoMoreAreAHole) {
  NatsServer server;
  Entries entries;
  entries.append(20);
  Connection connection(server.config(), "replica");
  StreamConsumer consumer(connection, "one", begin_of(entries));
  {
    Publishing publishing(server.config(), entries);
    EXPECT_EQ(consume(consumer, entries, 21), range(1, 21));
  }
  entries.append(20);
  entries.release(31);
  Publishing publishing(server.config(), entries);
  EXPECT_TRUE(publishing.done());
  EXPECT_EQ(publishing.status().gaps, 1U);
  EXPECT_TRUE(consume(consumer, entries, 41).empty());
  ASSERT_TRUE(consumer.hole());
  EXPECT_EQ(consumer.hole()->kind, StreamHole::Kind::kMissing);
  EXPECT_EQ(consumer.hole()->wanted.position, 21U);
  EXPECT_EQ(consumer.hole()->found.position, 31U);
  consumer.go_on();
  EXPECT_EQ(consume(consumer, entries, 41), range(31, 41));
}

TEST(StreamTest, AConsumerThatIsDeletedAtTheServerIsMadeAgain) {
  NatsServer server;
  Entries entries;
  entries.append(20);
  Publishing publishing(server.config(), entries);
  Connection connection(server.config(), "replica");
  StreamConsumer consumer(connection, "one", begin_of(entries));
  EXPECT_EQ(consume(consumer, entries, 21), range(1, 21));
  Admin admin(server);
  ASSERT_EQ(js_DeleteConsumer(admin->context(), "data", "one", nullptr, nullptr), NATS_OK);
  entries.append(20);
  EXPECT_EQ(consume(consumer, entries, 41), range(21, 41));
  EXPECT_TRUE(consumer.remove());
  jsConsumerInfo *info = nullptr;
  EXPECT_EQ(js_GetConsumerInfo(&info, admin->context(), "data", "one", nullptr, nullptr),
            NATS_NOT_FOUND);
}

/* As if a server led it that has not what the stream has. */
TEST(StreamTest, AConsumerThatStandsStillIsMadeAgain) {
  NatsServer server;
  Entries entries;
  entries.append(20);
  Publishing publishing(server.config(), entries);
  Connection connection(server.config(), "replica");
  StreamConsumer consumer(connection, "one", begin_of(entries));
  EXPECT_EQ(consume(consumer, entries, 21), range(1, 21));
  Admin admin(server);
  ASSERT_EQ(js_DeleteConsumer(admin->context(), "data", "one", nullptr, nullptr), NATS_OK);
  jsConsumerConfig wanted;
  jsConsumerConfig_Init(&wanted);
  wanted.Durable = "one";
  wanted.DeliverPolicy = js_DeliverByStartSequence;
  wanted.OptStartSeq = 1000;
  wanted.AckPolicy = js_AckAll;
  ASSERT_EQ(js_AddConsumer(nullptr, admin->context(), "data", &wanted, nullptr, nullptr), NATS_OK);
  entries.append(20);
  EXPECT_EQ(consume(consumer, entries, 41), range(21, 41));
}

/* What was taken and not acknowledged comes again to the replica that begins anew. */
TEST(StreamTest, AReplicaThatBeginsAnewGetsWhatItDoesNotHave) {
  NatsServer server;
  Entries entries;
  entries.append(50, 20'000);
  Publishing publishing(server.config(), entries);
  Connection connection(server.config(), "replica");
  {
    StreamConsumer consumer(connection, "one", begin_of(entries));
    EXPECT_EQ(consume(consumer, entries, 51), range(1, 51));
    consumer.acknowledge(31);
    Admin admin(server);
    // The servers show what was acknowledged: whole messages only.
    EXPECT_TRUE(eventually([&] {
      jsConsumerInfo *info = nullptr;
      if (js_GetConsumerInfo(&info, admin->context(), "data", "one", nullptr, nullptr) != NATS_OK)
        return false;
      const NatsOwner<jsConsumerInfo> owner(info);
      const auto floor = admin->at(info->AckFloor.Stream, info->AckFloor.Stream);
      const auto next = admin->at(info->AckFloor.Stream + 1, info->AckFloor.Stream + 1);
      return floor && *floor && (*floor)->behind.position <= 31 && next && *next &&
             (*next)->behind.position > 31;
    }));
  }
  StreamConsumer consumer(connection, "one", begin_of(entries, 31));
  EXPECT_EQ(consume(consumer, entries, 51), range(31, 51));
}

TEST(StreamTest, WhatEveryReplicaHasIsRemoved) {
  NatsServer server;
  Entries entries;
  entries.append(100, 20'000);
  Publishing publishing(server.config(), entries);
  EXPECT_TRUE(publishing.done());
  Admin admin(server);
  const std::uint64_t last = admin->extent()->last;
  publishing.publisher().release(51);
  EXPECT_TRUE(eventually([&] { return admin->extent()->first > 1; }));
  const auto first = admin->at(admin->extent()->first, last);
  ASSERT_TRUE(first && *first);
  EXPECT_LE((*first)->place.position, 51U);
  EXPECT_GT((*first)->behind.position, 51U);
  publishing.publisher().release(101);
  EXPECT_TRUE(eventually([&] { return admin->extent()->first == last; }));
  Connection connection(server.config(), "replica");
  StreamConsumer late(connection, "late", begin_of(entries, 20));
  EXPECT_TRUE(consume(late, entries, 101).empty());
  ASSERT_TRUE(late.hole());
  EXPECT_EQ(late.hole()->wanted.position, 20U);
}

TEST(StreamTest, ANewReplicaBeginsAtTheEnd) {
  NatsServer server;
  Entries entries;
  entries.append(20);
  Publishing publishing(server.config(), entries);
  EXPECT_TRUE(publishing.done());
  Connection connection(server.config(), "replica");
  StreamConsumer consumer(connection, "one", std::nullopt);
  EXPECT_TRUE(eventually([&] { return consumer.fetch(milliseconds(1)).ok(); }));
  entries.append(5);
  EXPECT_EQ(consume(consumer, entries, 26), range(21, 26));
}

TEST(StreamTest, MessagesOfOthersStopAReplica) {
  NatsServer server;
  Entries entries;
  entries.append(20);
  Connection connection(server.config(), "replica");
  StreamConsumer consumer(connection, "one", begin_of(entries));
  {
    Publishing publishing(server.config(), entries);
    EXPECT_EQ(consume(consumer, entries, 21), range(1, 21));
  }
  Admin admin(server);
  ASSERT_EQ(js_Publish(nullptr, admin->context(), "tarn.data.log", "hello", 5, nullptr, nullptr),
            NATS_OK);
  EXPECT_TRUE(consume(consumer, entries, 1000).empty());
  ASSERT_TRUE(consumer.hole());
  EXPECT_EQ(consumer.hole()->kind, StreamHole::Kind::kDamaged);
  EXPECT_EQ(consumer.hole()->wanted.position, 21U);
  consumer.go_on();
  // The publisher does not know the message either.
  Publishing publishing(server.config(), entries);
  EXPECT_EQ(consume(consumer, entries, 21), range(1, 21));
  EXPECT_EQ(publishing.status().gaps, 1U);
}

TEST(StreamTest, WithoutAStreamOrAServerTheConsumerSaysSo) {
  NatsServer server;
  Connection connection(server.config(), "replica");
  Entries entries;
  StreamConsumer consumer(connection, "one", begin_of(entries));
  EXPECT_EQ(consumer.fetch(milliseconds(1)).error().code, -ENOENT);
  server.kill();
  EXPECT_TRUE(
      eventually([&] { return consumer.fetch(milliseconds(1)).error().code == -ENOTCONN; }));
}

}  // namespace
}  // namespace tarn::test
