// SPDX-License-Identifier: GPL-2.0
// What the receiver gives to the sources' logs, from a stand-in for tarnd.
#include "mirrord/service/receiver.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "mirrord/file_status.h"
#include "tests/mirrord/service_kit.h"
#include "tests/replicate/fake_tarnd.h"
#include "tests/replicate/run_program.h"

namespace tarn {
namespace {

using namespace test;
namespace fs = std::filesystem;

class ReceiverTest : public testing::Test {
 protected:
  ReceiverTest() {
    for (const char *name : {"a", "b", "mnt"}) fs::create_directory(dir_ / name);
    a_ = open_intake(dir_ / "log-a");
    b_ = open_intake(dir_ / "log-b");
  }
  ~ReceiverTest() override { stop(); }

  void start() {
    RuleKeeper keeper(tarnd_site(dir_ / "run"), "/usr/sbin/mirrord",
                      {{a_->rule(), dir_ / "a"}, {b_->rule(), dir_ / "b"}});
    auto receiver =
        Receiver::open(tarnd_site(dir_ / "run"), keeper, {{"a", a_.get()}, {"b", b_.get()}}, {});
    ASSERT_TRUE(receiver.ok());
    receiver_ = std::move(*receiver);
    thread_ = std::thread([this] { receiver_->run(); });
    receiver_->wait_for_attempt();
  }
  /* Connected, with the mark that it asks for then in the logs. */
  void start_connected() {
    start();
    ASSERT_EQ(receiver_->problem(), "");
    ASSERT_TRUE(marked());
  }
  void stop() {
    if (!thread_.joinable()) return;
    receiver_->stop();
    thread_.join();
  }
  /* A mark that is asked for now is in both logs. */
  bool marked() {
    const auto number = receiver_->request_mark();
    return number &&
           eventually([&] { return a_->last_mark() >= *number && b_->last_mark() >= *number; });
  }
  Stamp stamp(const Intake &of, std::uint32_t number, std::uint32_t generation = 7) const {
    return {number, of.rule(), static_cast<std::uint64_t>(now_us()), OX_CP_NAMED, generation};
  }
  void send(const Intake &of, std::uint32_t number, std::uint32_t generation = 7) {
    fake_->send(name_change(OX_OP_CREATE, stamp(of, number, generation), "/f", {}, 0100644));
  }
  /* Without marks, which come when they come. */
  static std::string kinds(const Intake &of) {
    std::string kinds = kinds_of(of.log());
    std::erase(kinds, 'M');
    return kinds;
  }
  static bool gap_says(const Intake &of, const std::string &text) {
    const std::string reason = last_gap_of(of.log()).reason;
    EXPECT_NE(reason.find(text), std::string::npos) << reason;
    return reason.find(text) != std::string::npos;
  }
  /* A mount of the source's directory: touching it is possible. */
  void show_sources() {
    fake_->with([&](auto &state) {
      state.mounts = {{dir_ / "a", dir_ / "mnt"}, {dir_ / "b", dir_ / "mnt"}};
    });
  }
  bool reconnected() {
    fake_->with([](auto &state) { state.registered = false; });
    fake_->close_daemon_channel();
    return fake_->wait_for([](const auto &state) { return state.registered; }) &&
           eventually([&] { return receiver_->problem().empty(); });
  }

  TemporaryDirectory dir_;
  std::unique_ptr<FakeTarnd> fake_ = std::make_unique<FakeTarnd>(dir_ / "run");
  std::unique_ptr<Intake> a_, b_;
  std::unique_ptr<Receiver> receiver_;
  std::thread thread_;
};

TEST_F(ReceiverTest, gives_each_source_its_records_in_order) {
  start_connected();
  send(*a_, 1);
  send(*b_, 1);
  send(*a_, 3);
  fake_->send(name_change(OX_OP_CREATE, {1, rule_uuid(9)}, "/f"));
  send(*a_, 2);
  EXPECT_TRUE(eventually([&] { return kinds(*a_) == "RRR" && kinds(*b_) == "R"; }));
  EXPECT_EQ(a_->received()->last, 3u);
  EXPECT_TRUE(eventually([&] { return a_->marked() && b_->marked(); }))
      << "marks come by themselves";
  stop();
  EXPECT_EQ(kinds_of(a_->log()).back(), 'M');
  EXPECT_TRUE(fake_->with([](auto &state) { return !state.registered; }));
}

TEST_F(ReceiverTest, a_hole_is_a_gap_where_it_is) {
  start_connected();
  send(*a_, 1);
  send(*a_, 3);
  ASSERT_TRUE(eventually([&] { return kinds(*a_) == "R"; }));
  stop();
  EXPECT_EQ(kinds(*a_), "RGR");
  EXPECT_TRUE(gap_says(*a_, "records 2 to 2"));
  EXPECT_EQ(kinds(*b_), "");
}

/* It may have been the last record before a mark. */
TEST_F(ReceiverTest, a_message_that_cannot_be_read_is_a_gap) {
  start_connected();
  send(*a_, 1);
  ASSERT_TRUE(eventually([&] { return kinds(*a_) == "R"; }));
  fake_->send(Packet(20));  // rubbish
  ASSERT_TRUE(marked());
  EXPECT_EQ(kinds(*a_), "RG");
  EXPECT_EQ(kinds(*b_), "G");
  EXPECT_TRUE(gap_says(*a_, "could not be read"));
  fake_->send(Packet(std::size_t{1} << 17));  // longer than any message
  ASSERT_TRUE(marked());
  EXPECT_EQ(kinds(*a_), "RGG");
}

TEST_F(ReceiverTest, a_rule_that_was_added_again_is_a_gap) {
  start_connected();
  send(*a_, 1);
  send(*a_, 1, 8);
  ASSERT_TRUE(eventually([&] { return kinds(*a_) == "RGR"; }));
  EXPECT_EQ(a_->received()->generation, 8u);
}

/* For a target that begins there, the later pages would be of no file. */
TEST_F(ReceiverTest, a_mark_does_not_part_the_pages_of_a_write) {
  start_connected();
  const auto pages = write_data(stamp(*a_, 1), "/f", 0, std::string(3 * OX_PAGE_DATA, 'x'));
  ASSERT_GT(pages.size(), 2u);
  const std::uint64_t before = a_->last_mark();
  fake_->send(pages[0]);
  ASSERT_TRUE(eventually([&] { return kinds(*a_) == "R"; }));
  const auto asked = receiver_->request_mark();
  ASSERT_TRUE(asked.has_value());
  fake_->send(pages[1]);
  ASSERT_TRUE(eventually([&] { return kinds(*a_) == "RR"; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(a_->last_mark(), before);
  for (std::size_t i = 2; i < pages.size(); ++i) fake_->send(pages[i]);
  EXPECT_TRUE(eventually([&] { return a_->last_mark() >= *asked; }));
  EXPECT_NE(kinds_of(a_->log()).find("RRR"), std::string::npos);
}

/* The module has lost the others, and nobody changes anything afterwards. */
TEST_F(ReceiverTest, a_write_whose_rest_never_comes_holds_no_mark_for_ever) {
  start_connected();
  fake_->send(write_data(stamp(*a_, 1), "/f", 0, std::string(3 * OX_PAGE_DATA, 'x'))[0]);
  ASSERT_TRUE(eventually([&] { return kinds(*a_) == "R"; }));
  EXPECT_TRUE(marked());
  EXPECT_EQ(kinds(*a_), "RG");
  EXPECT_TRUE(gap_says(*a_, "ends after 1 of its pages"));
}

TEST_F(ReceiverTest, marks_only_grow_from_one_process_to_the_next) {
  ASSERT_TRUE(a_->mark({~std::uint64_t{0} / 2, 0}));
  start_connected();
  EXPECT_GT(a_->last_mark(), ~std::uint64_t{0} / 2);
  EXPECT_EQ(a_->last_mark(), b_->last_mark());
}

TEST_F(ReceiverTest, without_tarnd_it_says_so_and_comes_when_there_is_one) {
  fake_.reset();
  start();
  EXPECT_NE(receiver_->problem().find("not connected"), std::string::npos);
  EXPECT_FALSE(receiver_->request_mark().has_value());
  fs::remove_all(dir_ / "run");
  fake_ = std::make_unique<FakeTarnd>(dir_ / "run");
  EXPECT_TRUE(eventually([&] { return receiver_->problem().empty(); }));
  EXPECT_TRUE(marked());
  EXPECT_EQ(kinds(*a_), "") << "with a new log each target is copied anyway";
}

TEST_F(ReceiverTest, a_new_rule_for_an_old_log_is_a_gap) {
  feed(*a_, created(1, "/f"));
  start_connected();
  EXPECT_EQ(kinds(*a_), "RG");
  EXPECT_EQ(kinds(*b_), "");
  EXPECT_TRUE(gap_says(*a_, "no rule for the source until now"));
}

TEST_F(ReceiverTest, what_went_by_between_two_connections_is_a_gap) {
  show_sources();
  start_connected();
  send(*a_, 1);
  send(*b_, 1);
  ASSERT_TRUE(eventually([&] { return kinds(*a_) == "R" && kinds(*b_) == "R"; }));
  ASSERT_TRUE(reconnected());
  EXPECT_EQ(kinds(*a_) + kinds(*b_), "RR") << "nothing is known to be missing";
  send(*a_, 2);
  send(*b_, 3);
  ASSERT_TRUE(eventually([&] { return kinds(*a_) == "RR"; }));
  stop();
  EXPECT_EQ(kinds(*a_), "RR");
  EXPECT_EQ(kinds(*b_), "RGR");
}

/* No record can be caused, so no number tells whether any is missing. */
TEST_F(ReceiverTest, a_touch_that_fails_is_a_gap) {
  start_connected();
  send(*a_, 1);
  ASSERT_TRUE(eventually([&] { return kinds(*a_) == "R"; }));
  ASSERT_TRUE(reconnected());
  EXPECT_EQ(kinds(*a_), "RG");
  EXPECT_TRUE(gap_says(*a_, "unknown what changed while mirrord was away"));
}

TEST_F(ReceiverTest, a_stopped_rule_is_a_gap_and_added_anew) {
  start_connected();
  send(*a_, 1);
  ASSERT_TRUE(eventually([&] { return kinds(*a_) == "R"; }));
  const auto old = fake_->with([](auto &state) {
    return std::exchange(state.received, {}).size();  // requests so far
  });
  ASSERT_GT(old, 0u);
  fake_->send(stop_rule(a_->rule()));
  fake_->send(stop_rule(a_->rule()));
  ASSERT_TRUE(eventually([&] { return receiver_->stopped(a_->rule()); }));
  EXPECT_FALSE(receiver_->stopped(b_->rule()));
  ASSERT_TRUE(eventually([&] { return !receiver_->stopped(a_->rule()); }));
  // One where it stopped, one where the new rule begins.
  EXPECT_TRUE(eventually([&] { return kinds(*a_) == "RGG"; })) << kinds(*a_);
  EXPECT_TRUE(gap_says(*a_, "no rule for the source until now"));
  EXPECT_EQ(fake_->with([](auto &state) { return state.rules.size(); }), 2u);
  EXPECT_EQ(kinds(*b_), "");
}

/* What is changed behind the end of the registration comes to nobody, so neither the last mark's
 * time nor its number may tell that it is in the log. */
TEST_F(ReceiverTest, the_last_mark_is_of_before_the_end_of_the_registration) {
  start_connected();
  send(*a_, 1);
  std::optional<std::uint64_t> asked;
  std::int64_t left = 0;
  std::thread looking([&] {
    EXPECT_TRUE(fake_->wait_for([](const auto &state) { return !state.registered; }));
    left = now_us();
    asked = receiver_->request_mark();
  });
  stop();
  looking.join();
  ASSERT_EQ(kinds_of(a_->log()).back(), 'M');
  const auto mark = decode_mark(entries_of(a_->log()).back().bytes());
  ASSERT_TRUE(mark.ok());
  EXPECT_LE(mark->until, left);
  EXPECT_TRUE(!asked || *asked > mark->number);
}

/* The registration is there and gone again before the first barrier. */
TEST_F(ReceiverTest, a_tarnd_that_ends_while_it_is_connected_to_is_tried_again) {
  start();
  for (int i = 0; i < 5; ++i) {
    fake_->with([](auto &state) { state.registered = false; });
    fake_->close_daemon_channel();
    ASSERT_TRUE(fake_->wait_for([](const auto &state) { return state.registered; }));
  }
  EXPECT_TRUE(eventually([&] { return receiver_->problem().empty() && marked(); }));
}

}  // namespace
}  // namespace tarn
