// SPDX-License-Identifier: GPL-2.0
// The log of a replica has the stream's entries, each once, and knows which one is next; walks are
// asked for until they have come.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "mirrord/remote/source_server.h"
#include "mirrord/service/replica_service.h"
#include "mirrord/service/source_contact.h"
#include "mirrord/service/stream_intake.h"
#include "mirrord/service/stream_target.h"
#include "tests/mirrord/nats_kit.h"

namespace tarn::test {
namespace {

using std::chrono::milliseconds;

class StreamIntakeTest : public testing::Test {
 protected:
  /* Of the replica whose state lies in `name`. */
  void open(const std::string &name = "one") {
    close();
    const std::string directory = scratch_ / name;
    std::filesystem::create_directories(directory);
    std::filesystem::permissions(directory, std::filesystem::perms{0700});
    auto intake =
        Intake::open({.name = name, .directory = directory, .log_limit = std::uint64_t{1} << 26});
    ASSERT_TRUE(intake.ok()) << intake.error().text;
    intake_ = std::move(*intake);
    auto receiver =
        StreamIntake::open({.about = name,
                            .replica = name,
                            .file = directory + "/stream.json",
                            .applied = [this] { return applied_.load(); },
                            .appended = [](const LogEntry &, LogPosition) {},
                            .again = [this](const StreamPosition &wanted,
                                            std::uint64_t seen) { return ask(wanted, seen); }},
                           connection_, *intake_);
    ASSERT_TRUE(receiver.ok()) << receiver.error().text;
    receiver_ = std::move(*receiver);
    receiver_->start();
  }
  void close() {
    receiver_.reset();
    intake_.reset();
  }
  /* As the source's host answers. */
  Result<bool> ask(const StreamPosition &wanted, std::uint64_t seen) {
    ++asked_;
    if (host_away_) return Error{-EHOSTUNREACH, "nobody is there"};
    if (wanted.position < entries_.first()) return false;
    publishing_.publisher().send_again(wanted.position, seen);
    return true;
  }
  bool follows() {
    return eventually([&] { return receiver_->follows(); });
  }
  std::optional<LogPosition> next() const {
    const auto place = receiver_->in_stream(intake_->log().end());
    return place ? std::optional(place->position) : std::nullopt;
  }
  bool has_all() {
    return eventually([&] { return next() == entries_.end(); });
  }
  /* What the log has: the positions in the stream, from their texts; 0 for a joint. */
  std::vector<LogPosition> logged(std::uint64_t *missing = nullptr) const {
    std::vector<LogPosition> all;
    LogReader reader(intake_->log(), intake_->log().first());
    for (;;) {
      const auto entry = reader.next();
      if (!entry || !*entry) return all;
      if (const auto join = decode_join((*entry)->payload);
          join && (*entry)->kind == static_cast<std::uint8_t>(EntryKind::kJoin)) {
        all.push_back(0);
        if (missing && join->missing) ++*missing;
        continue;
      }
      const std::string text(reinterpret_cast<const char *>((*entry)->payload.data()),
                             (*entry)->payload.size());
      all.push_back(std::stoull(text.substr(6)));
      EXPECT_EQ(text, entries_.payload(all.back()));
    }
  }

  NatsServer server_;
  Scratch scratch_;
  Entries entries_;
  Publishing publishing_{server_.config(), entries_};
  Connection connection_{server_.config(), "replica"};
  std::atomic<LogPosition> applied_ = 0;
  std::atomic<bool> host_away_ = false;
  std::atomic<int> asked_ = 0;
  std::unique_ptr<Intake> intake_;
  std::unique_ptr<StreamIntake> receiver_;
};

TEST_F(StreamIntakeTest, each_entry_comes_once_over_restarts) {
  entries_.append(10);
  ASSERT_TRUE(publishing_.done());
  open();
  ASSERT_TRUE(follows());
  entries_.append(20);
  ASSERT_TRUE(has_all());
  EXPECT_EQ(logged().at(0), 0u);
  for (int i = 0; i < 3; ++i) {
    close();
    entries_.append(20);
    open();
    ASSERT_TRUE(has_all());
  }
  std::vector<LogPosition> expected = range(11, 91);
  expected.insert(expected.begin(), 0);
  EXPECT_EQ(logged(), expected);
  EXPECT_EQ(receiver_->in_stream(2)->position, 11u);
  EXPECT_EQ(receiver_->in_stream(12)->position, 21u);
  EXPECT_EQ(receiver_->in_stream(2)->epoch, entries_.epoch());
  EXPECT_FALSE(receiver_->in_stream(1));
  EXPECT_EQ(receiver_->needed(12), receiver_->in_stream(12));
}

/* Before its target has anything: the stream may not forget what a first copy is made beside. */
TEST_F(StreamIntakeTest, a_replica_needs_what_has_come_since_it_follows) {
  open();
  EXPECT_FALSE(receiver_->needed(1));
  entries_.append(10);
  ASSERT_TRUE(publishing_.done());
  open("two");
  ASSERT_TRUE(follows());
  entries_.append(20);
  ASSERT_TRUE(has_all());
  EXPECT_EQ(receiver_->needed(0), (StreamPosition{entries_.epoch(), 11}));
  EXPECT_EQ(receiver_->needed(1), (StreamPosition{entries_.epoch(), 11}));
  EXPECT_EQ(receiver_->needed(2), (StreamPosition{entries_.epoch(), 11}));
  EXPECT_EQ(receiver_->needed(3), (StreamPosition{entries_.epoch(), 12}));
}

TEST_F(StreamIntakeTest, a_document_that_is_lost_is_made_again_from_the_log) {
  open();
  ASSERT_TRUE(publishing_.done());
  ASSERT_TRUE(follows());
  entries_.append(20);
  ASSERT_TRUE(has_all());
  close();
  std::filesystem::remove(scratch_ / "one/stream.json");
  entries_.append(5);
  open();
  ASSERT_TRUE(has_all());
  std::vector<LogPosition> expected = range(1, 26);
  expected.insert(expected.begin(), 0);
  EXPECT_EQ(logged(), expected);
}

TEST_F(StreamIntakeTest, what_the_stream_has_no_more_is_a_joint_that_says_so) {
  open();
  ASSERT_TRUE(publishing_.done());
  ASSERT_TRUE(follows());
  entries_.append(20);
  ASSERT_TRUE(has_all());
  close();
  entries_.append(20);
  ASSERT_TRUE(publishing_.done());
  entries_.append(1);
  ASSERT_TRUE(publishing_.done());
  entries_.release(41);  // when all known replicas have it
  publishing_.publisher().release(41);
  Connection admin(server_.config(), "admin");
  ASSERT_TRUE(eventually([&] {
    auto engine = Engine::open(admin);
    if (!engine) return false;
    const auto extent = (*engine)->extent();
    return extent && extent->messages == 1;
  }));
  open();
  ASSERT_TRUE(has_all());
  std::uint64_t missing = 0;
  std::vector<LogPosition> expected = range(1, 21);
  expected.insert(expected.begin(), 0);
  expected.push_back(0);
  expected.push_back(41);
  EXPECT_EQ(logged(&missing), expected);
  EXPECT_EQ(missing, 1u);
  EXPECT_EQ(receiver_->in_stream(22)->position, 21u);  // before the joint
  EXPECT_EQ(receiver_->in_stream(23)->position, 41u);
}

TEST_F(StreamIntakeTest, what_the_stream_has_lost_comes_again_from_the_source) {
  open();
  ASSERT_TRUE(publishing_.done());
  ASSERT_TRUE(follows());
  entries_.append(5);
  ASSERT_TRUE(has_all());
  close();
  for (int i = 0; i < 5; ++i) {
    entries_.append(1);  // a message for each
    ASSERT_TRUE(publishing_.done());
  }
  Admin(server_).lose(entries_, 7);
  host_away_ = true;
  open();
  // It waits for as long as nobody answers, and says why.
  ASSERT_TRUE(eventually(
      [&] { return receiver_->problem().find("nobody is there") != std::string::npos; }));
  EXPECT_EQ(next(), 7u);
  EXPECT_FALSE(receiver_->follows());
  ASSERT_TRUE(eventually([&] { return asked_ > 1; }));
  EXPECT_EQ(next(), 7u);
  close();  // and goes on waiting behind a restart
  open();
  host_away_ = false;
  ASSERT_TRUE(has_all());
  ASSERT_TRUE(follows());
  EXPECT_EQ(receiver_->problem(), "");
  std::uint64_t missing = 0;
  std::vector<LogPosition> expected = range(1, 11);
  expected.insert(expected.begin(), 0);
  EXPECT_EQ(logged(&missing), expected);
  EXPECT_EQ(missing, 0u);
}

TEST_F(StreamIntakeTest, servers_that_are_away_show_and_come_back) {
  open();
  ASSERT_TRUE(follows());
  EXPECT_EQ(receiver_->problem(), "");
  server_.kill();
  EXPECT_TRUE(eventually([&] { return !receiver_->follows(); }));
  EXPECT_NE(receiver_->problem(), "");
  server_.start();
  ASSERT_TRUE(follows());  // it begins at the stream's end
  entries_.append(3);
  EXPECT_TRUE(has_all());
}

/* A source's host in this process, whose answers can be held back. */
class Host : public Requests {
 public:
  Result<std::vector<std::byte>> ask(Bytes question) override {
    if (away_) return Error{-EHOSTUNREACH, "nobody is there"};
    SourceServer server(
        {.directory = "/srv/data",
         .exclude = {"/srv/data/tmp"},
         .run = run_,
         .included = [](const std::string &) { return true; },
         .walk = [this](const remote::WalkQuestion &walk) -> Result<void> {
           since_ = walk.since;
           ++walks_;
           return {};
         },
         .mark = [] { return Result<std::uint64_t>(std::uint64_t{1}); },
         .report =
             [this](const remote::ReportQuestion &report) {
               ++reports_;
               reported_ = report.position;
             },
         .again = [](const remote::AgainQuestion &) { return Result<bool>(false); }});
    return server.answer(question);
  }
  std::atomic<bool> away_ = false;
  std::atomic<std::uint64_t> run_ = 1;
  std::atomic<int> walks_ = 0, reports_ = 0;
  std::atomic<std::int64_t> since_ = 0;
  std::atomic<LogPosition> reported_ = 0;
};

class SourceContactTest : public testing::Test {
 protected:
  void came(EntryKind kind, const std::vector<std::byte> &payload, LogPosition position) {
    contact_.came({position, 0, static_cast<std::uint8_t>(kind), payload}, position);
  }

  Host host_;
  std::atomic<bool> follows_ = true;
  SourceContact contact_{{.about = "one",
                          .replica = "one",
                          .follows = [this] { return follows_.load(); },
                          .report = [] { return std::optional(remote::ReportQuestion()); }},
                         host_};
};

TEST_F(SourceContactTest, hears_of_the_source_and_reports) {
  host_.away_ = true;
  contact_.start();
  EXPECT_TRUE(
      eventually([&] { return contact_.problem().find("nobody is there") != std::string::npos; }));
  EXPECT_FALSE(contact_.source());
  host_.away_ = false;
  ASSERT_TRUE(eventually([&] { return contact_.source().has_value(); }));
  EXPECT_EQ(contact_.source()->directory, "/srv/data");
  EXPECT_EQ(contact_.source()->exclude, std::vector<std::string>{"/srv/data/tmp"});
  EXPECT_TRUE(eventually([&] { return host_.reports_ > 0 && contact_.problem().empty(); }));
}

TEST_F(SourceContactTest, a_walk_that_a_restart_has_ended_is_asked_for_again) {
  follows_ = false;
  contact_.start();
  contact_.request("replica:one", 17, 5);
  ASSERT_TRUE(eventually([&] { return host_.reports_ > 0; }));
  EXPECT_EQ(host_.walks_, 0);  // its entries would not come
  follows_ = true;
  ASSERT_TRUE(eventually([&] { return host_.walks_ == 1; }));
  EXPECT_EQ(host_.since_, 17);
  came(EntryKind::kWalkBegin, encode(WalkBeginEntry{9, 17, "replica:one"}), 5);
  host_.run_ = 2;
  ASSERT_TRUE(eventually([&] { return host_.walks_ == 2; }));
  came(EntryKind::kWalkEnd, encode(WalkEndEntry{9, true}), 6);  // not of the new walk
  host_.run_ = 3;
  ASSERT_TRUE(eventually([&] { return host_.walks_ == 3; }));
  came(EntryKind::kWalkBegin, encode(WalkBeginEntry{11, 17, ""}), 7);
  came(EntryKind::kWalkEnd, encode(WalkEndEntry{11, true}), 8);
  host_.run_ = 4;
  ASSERT_TRUE(eventually([&] { return contact_.source()->run == 4; }));
  const int reports = host_.reports_;
  ASSERT_TRUE(eventually([&] { return host_.reports_ > reports + 1; }));
  EXPECT_EQ(host_.walks_, 3);
}

/* Far more between two marks than the replica's log and the stream have room for: neither waits for
 * ever for what the other keeps. */
TEST(ReplicaServiceTest, more_without_a_mark_than_there_is_room_for_goes_through) {
  constexpr int kMebibytes = 100;
  NatsServer server;
  Scratch scratch;
  Host host;
  Entries entries(1, 0);  // of no kind that a target knows
  Publishing publishing(server.config(), entries);
  Connection connection(server.config(), "source");
  RequestServer answering(connection, connection.subject(kQuestions),
                          [&](Bytes question) { return *host.ask(question); });
  std::filesystem::create_directory(scratch / "copy");
  Config config;
  config.state_directory = scratch / "state";
  config.control_socket = scratch / "state/control.sock";
  config.replica = ReplicaConfig{.target = {.name = "one", .directory = scratch / "copy"},
                                 .stream = server.config(),
                                 .log_limit = std::uint64_t{64} << 20};
  auto service = ReplicaService::open(config);
  ASSERT_TRUE(service.ok()) << service.error().text;
  auto signals = SignalPipe::open({SIGUSR1});
  ASSERT_TRUE(signals.ok());
  std::thread running([&] { EXPECT_TRUE((*service)->run(**signals).ok()); });
  EXPECT_TRUE(eventually([&] { return host.reported_ != 0 || host.walks_ != 0; }));
  entries.append(kMebibytes, 1 << 20);
  // As the source's host does when all replicas have reported.
  EXPECT_TRUE(eventually([&] {
    publishing.publisher().release(host.reported_);
    return publishing.status().position == entries.end() && host.reported_ == entries.end();
  }));
  kill(getpid(), SIGUSR1);
  running.join();
}

}  // namespace
}  // namespace tarn::test
