// SPDX-License-Identifier: GPL-2.0
#include "client/sequence.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <numeric>

#include <fmt/format.h>

#include "tests/replicate/message_builder.h"

namespace tarn {
namespace {

using namespace test;
using Clock = Sequencer::Clock;

/* Writes down what passes, in short words. */
class Notes : public Sequencer::Sink {
 public:
  void record(const Record &record, Bytes, Sequencer::Order order) override {
    std::string word = std::to_string(record.wseq);
    if (const auto *page = std::get_if<WritePage>(&record.change))
      word += fmt::format(".{}", page->page);
    if (order == Sequencer::Order::kLate) word += "late";
    add(word);
  }
  void event(const Uuid &, const Sequencer::Event &event) override {
    if (const auto *e = std::get_if<Sequencer::Joined>(&event))
      add(fmt::format("joined{}", e->first));
    if (const auto *e = std::get_if<Sequencer::Restarted>(&event))
      add(fmt::format("restarted{}", e->last));
    if (const auto *e = std::get_if<Sequencer::Missing>(&event))
      add(fmt::format("missing{}-{}", e->first, e->last));
    if (const auto *e = std::get_if<Sequencer::MissingPages>(&event))
      add(fmt::format("pages{}.{}", e->wseq, e->arrived));
    if (const auto *e = std::get_if<Sequencer::Duplicate>(&event))
      add(fmt::format("duplicate{}", e->wseq));
  }
  std::string take() { return std::exchange(text_, ""); }

 private:
  void add(const std::string &word) { text_ += (text_.empty() ? "" : " ") + word; }
  std::string text_;
};

class SequencerTest : public testing::Test {
 protected:
  void add_packet(const Packet &packet) {
    auto message = decode(packet);
    ASSERT_TRUE(message.ok()) << message.error().text;
    sequencer_.add(std::get<Record>(*message), packet, now_);
  }
  void add(std::uint32_t wseq, std::uint64_t ts = kTime, std::uint8_t rule = 1) {
    add_packet(name_change(OX_OP_UNLINK, {wseq, rule_uuid(rule), ts}, "/d/f"));
  }
  void add_of(std::uint32_t generation, std::uint32_t wseq, std::uint64_t ts = kTime) {
    add_packet(
        name_change(OX_OP_UNLINK, {.wseq = wseq, .ts = ts, .generation = generation}, "/d/f"));
  }
  std::string after(Clock::duration time) {
    now_ += time;
    sequencer_.expire(now_);
    return notes_.take();
  }

  Sequencer::Limits limits_{std::chrono::seconds(5), std::chrono::milliseconds(100), 4, 100000};
  Notes notes_;
  Sequencer sequencer_{notes_, limits_};
  Clock::time_point now_{};
};

TEST_F(SequencerTest, in_order_nothing_waits) {
  for (std::uint32_t n = 1; n <= 3; ++n) add(n);
  EXPECT_EQ(notes_.take(), "1 2 3");
  EXPECT_FALSE(sequencer_.next_deadline());
  EXPECT_TRUE(sequencer_.holds_nothing());
}

TEST_F(SequencerTest, early_records_wait_for_those_before) {
  add(1);
  add(4);
  add(3);
  EXPECT_EQ(notes_.take(), "1");
  EXPECT_FALSE(sequencer_.holds_nothing());
  add(2);
  EXPECT_EQ(notes_.take(), "2 3 4");
  EXPECT_TRUE(sequencer_.holds_nothing());
}

TEST_F(SequencerTest, a_gap_is_declared_after_its_time) {
  add(1);
  add(4);
  EXPECT_EQ(notes_.take(), "1");
  EXPECT_EQ(after(std::chrono::milliseconds(4999)), "");
  EXPECT_EQ(after(std::chrono::milliseconds(1)), "missing2-3 4");
  EXPECT_FALSE(sequencer_.next_deadline());
  add(3);
  EXPECT_EQ(notes_.take(), "3late");
  add(3);
  EXPECT_EQ(notes_.take(), "duplicate3");
  add(2);
  EXPECT_EQ(notes_.take(), "2late");
  add(2);
  EXPECT_EQ(notes_.take(), "duplicate2");
  add(5);
  EXPECT_EQ(notes_.take(), "5");
}

/* Many of them do not keep the records behind them for many times as long. */
TEST_F(SequencerTest, a_row_of_gaps_costs_one_wait) {
  add(1);
  for (std::uint32_t number = 3; number <= 9; number += 2) add(number);
  EXPECT_EQ(notes_.take(), "1");
  EXPECT_EQ(after(std::chrono::seconds(5)), "missing2-2 3 missing4-4 5 missing6-6 7 missing8-8 9");
  EXPECT_TRUE(sequencer_.holds_nothing());
}

TEST_F(SequencerTest, a_gap_is_declared_when_too_much_waits) {
  add(1);
  for (std::uint32_t n = 3; n <= 6; ++n) add(n);
  EXPECT_EQ(notes_.take(), "1");
  add(7);
  EXPECT_EQ(notes_.take(), "missing2-2 3 4 5 6 7");
}

TEST_F(SequencerTest, the_first_record_is_not_number_one) {
  add(12);
  add(11);
  EXPECT_EQ(notes_.take(), "");
  EXPECT_EQ(after(std::chrono::milliseconds(99)), "");
  EXPECT_EQ(after(std::chrono::milliseconds(1)), "joined11 11 12");
  add(13);
  EXPECT_EQ(notes_.take(), "13");
}

TEST_F(SequencerTest, number_one_comes_second) {
  add(2);
  add(1);
  EXPECT_EQ(notes_.take(), "1 2");
}

TEST_F(SequencerTest, duplicates_are_dropped) {
  add(1);
  add(2);
  add(2);
  add(1);
  EXPECT_EQ(notes_.take(), "1 2 duplicate2 duplicate1");
}

TEST_F(SequencerTest, early_duplicates_are_dropped) {
  add(1);
  add(3);
  add(3);
  add(2);
  EXPECT_EQ(notes_.take(), "1 2 3 duplicate3");
}

TEST_F(SequencerTest, the_first_of_a_gap_comes_late_once) {
  add(1);
  add(5);
  EXPECT_EQ(after(std::chrono::seconds(5)), "1 missing2-4 5");
  add(2);
  add(2);
  EXPECT_EQ(notes_.take(), "2late duplicate2");
}

TEST_F(SequencerTest, a_rule_that_was_made_anew_begins_again) {
  add(1);
  add(2);
  add(4);
  add(1, kTime + 1);
  EXPECT_EQ(notes_.take(), "1 2 missing3-3 4 restarted4 1");
  add(2, kTime + 2);
  EXPECT_EQ(notes_.take(), "2");
}

TEST_F(SequencerTest, a_rule_that_was_made_anew_begins_out_of_order) {
  for (std::uint32_t n = 1; n <= 5; ++n) add(n);
  notes_.take();
  add(2, kTime + 2);
  EXPECT_EQ(notes_.take(), "restarted5");
  add(1, kTime + 1);
  EXPECT_EQ(notes_.take(), "1 2");
}

TEST_F(SequencerTest, a_rule_that_was_made_anew_in_the_middle_of_a_write) {
  add(1);
  add_packet(write_data({2}, "/d/f", 0, std::string(10000, 'x'))[0]);
  add(1, kTime + 1);
  EXPECT_EQ(notes_.take(), "1 2.0 pages2.1 restarted2 1");
}

TEST_F(SequencerTest, a_rule_that_was_made_anew_after_the_clock_went_back) {
  add_of(7, 1);
  add_of(7, 2);
  add_of(9, 1, kTime - 1000);
  add_of(9, 2, kTime - 999);
  EXPECT_EQ(notes_.take(), "1 2 restarted2 1 2");
  // Without generations too.
  add(1, kTime, 2);
  add(2, kTime + 1, 2);
  add(1, kTime - 1000, 2);
  EXPECT_EQ(notes_.take(), "1 2 restarted2 1");
}

TEST_F(SequencerTest, a_rule_that_was_made_anew_is_known_by_any_of_its_numbers) {
  for (std::uint32_t n = 1; n <= 3; ++n) add_of(7, n);
  add_of(9, 5);
  EXPECT_EQ(notes_.take(), "1 2 3 restarted3");
  add_of(9, 4);
  EXPECT_EQ(after(std::chrono::milliseconds(4999)), "");
  EXPECT_EQ(after(std::chrono::milliseconds(1)), "missing1-3 4 5");
}

TEST_F(SequencerTest, a_later_time_makes_no_rule_anew) {
  add_of(7, 1);
  add_of(7, 2);
  add_of(7, 1, kTime + 1);
  EXPECT_EQ(notes_.take(), "1 2 duplicate1");
}

TEST_F(SequencerTest, what_is_held_of_an_earlier_life_is_passed_on_before_the_next) {
  add_of(7, 1);
  add_of(7, 4);
  add_of(9, 1);
  EXPECT_EQ(notes_.take(), "1 missing2-3 4 restarted4 1");
}

TEST_F(SequencerTest, records_of_an_earlier_life_come_late) {
  add_of(7, 1);
  add_of(7, 3);
  add_of(9, 1);
  EXPECT_EQ(notes_.take(), "1 missing2-2 3 restarted3 1");
  add_of(7, 2);
  add_of(7, 5);
  add_of(7, 4);
  EXPECT_EQ(notes_.take(), "2late 5late 4late");
  for (std::uint32_t n = 1; n <= 5; ++n) add_of(7, n);
  EXPECT_EQ(notes_.take(), "duplicate1 duplicate2 duplicate3 duplicate4 duplicate5");
  add_of(9, 2);
  EXPECT_EQ(notes_.take(), "2");
}

TEST_F(SequencerTest, an_earlier_listeners_place_is_gone_on_from) {
  sequencer_.resume(rule_uuid(), {7, 12});
  EXPECT_EQ(sequencer_.positions().at(rule_uuid()), (Sequencer::Position{7, 12}));
  add_of(7, 13);
  EXPECT_EQ(notes_.take(), "13");
  EXPECT_EQ(sequencer_.positions().at(rule_uuid()), (Sequencer::Position{7, 13}));
  // From then on a gap is waited for as long as ever.
  add_of(7, 15);
  EXPECT_EQ(after(std::chrono::milliseconds(4999)), "");
  EXPECT_EQ(after(std::chrono::milliseconds(1)), "missing14-14 15");
}

TEST_F(SequencerTest, what_was_sent_while_nobody_listened_is_missing_soon) {
  sequencer_.resume(rule_uuid(), {7, 12});
  add_of(7, 16);
  add_of(7, 15);
  EXPECT_EQ(after(std::chrono::milliseconds(99)), "");
  EXPECT_EQ(after(std::chrono::milliseconds(1)), "missing13-14 15 16");
}

TEST_F(SequencerTest, a_rule_that_was_made_anew_while_nobody_listened) {
  sequencer_.resume(rule_uuid(1), {7, 12});
  add_of(9, 1);
  EXPECT_EQ(notes_.take(), "restarted12 1");
  sequencer_.resume(rule_uuid(2), {7, 12});
  add_packet(name_change(OX_OP_UNLINK, {.wseq = 3, .rule = rule_uuid(2), .generation = 9}, "/d/f"));
  EXPECT_EQ(notes_.take(), "restarted12");
  EXPECT_EQ(after(std::chrono::milliseconds(100)), "missing1-2 3");
  // By an older module: the number alone tells.
  sequencer_.resume(rule_uuid(3), {0, 12});
  add(1, kTime, 3);
  EXPECT_EQ(notes_.take(), "restarted12 1");
}

TEST_F(SequencerTest, a_write_of_which_pages_are_missing_has_not_been_dealt_with) {
  add(1);
  add_packet(write_data({2}, "/d/f", 0, std::string(10000, 'x'))[0]);
  EXPECT_EQ(sequencer_.positions().at(rule_uuid()), (Sequencer::Position{0, 1}));
  add(9, kTime, 2);
  EXPECT_FALSE(sequencer_.positions().contains(rule_uuid(2)));
}

TEST_F(SequencerTest, pages_pass_as_they_come) {
  const auto pages = write_data({1}, "/d/f", 0, std::string(10000, 'x'));
  add_packet(pages[0]);
  add(2);
  add_packet(pages[1]);
  EXPECT_EQ(notes_.take(), "1.0 1.1");
  add_packet(pages[2]);
  EXPECT_EQ(notes_.take(), "1.2 2");
}

TEST_F(SequencerTest, early_pages_wait) {
  const auto pages = write_data({2}, "/d/f", 0, std::string(10000, 'x'));
  add(3);
  add_packet(pages[0]);
  add_packet(pages[1]);
  add(1);
  EXPECT_EQ(notes_.take(), "1 2.0 2.1");
  add_packet(pages[2]);
  EXPECT_EQ(notes_.take(), "2.2 3");
}

/* Nothing that comes later tells. */
TEST_F(SequencerTest, pages_that_stop_short_at_the_end) {
  const auto pages = write_data({1}, "/d/f", 0, std::string(10000, 'x'));
  add_packet(pages[0]);
  EXPECT_EQ(after(std::chrono::milliseconds(4999)), "1.0");
  add_packet(pages[1]);
  EXPECT_EQ(sequencer_.next_deadline(), now_ + std::chrono::seconds(5)) << "from the last one";
  EXPECT_EQ(after(std::chrono::milliseconds(4999)), "1.1");
  EXPECT_EQ(after(std::chrono::milliseconds(1)), "pages1.2");
  EXPECT_FALSE(sequencer_.next_deadline());
  add_packet(pages[2]);
  EXPECT_EQ(notes_.take(), "1.2late");
  add(2);
  EXPECT_EQ(notes_.take(), "2");
  EXPECT_TRUE(sequencer_.holds_nothing());
}

TEST_F(SequencerTest, pages_that_stop_short) {
  add_packet(write_data({1}, "/d/f", 0, std::string(10000, 'x'))[0]);
  add(4);
  EXPECT_EQ(notes_.take(), "1.0");
  EXPECT_EQ(after(std::chrono::seconds(5)), "pages1.1 missing2-3 4");
}

TEST_F(SequencerTest, the_end_passes_on_what_waits) {
  add(1);
  add(3);
  add_packet(write_data({4}, "/d/f", 0, std::string(10000, 'x'))[0]);
  EXPECT_EQ(notes_.take(), "1");
  sequencer_.finish();
  EXPECT_EQ(notes_.take(), "missing2-2 3 4.0 pages4.1");
  EXPECT_TRUE(sequencer_.holds_nothing());
}

TEST_F(SequencerTest, rules_are_counted_apart) {
  add(1, kTime, 1);
  add(1, kTime, 2);
  add(3, kTime, 1);
  add(2, kTime, 2);
  EXPECT_EQ(notes_.take(), "1 1 2");
  EXPECT_EQ(after(std::chrono::seconds(5)), "missing2-2 3");
}

TEST_F(SequencerTest, numbers_wrap) {
  add(0xfffffffe);
  EXPECT_EQ(after(std::chrono::milliseconds(100)), "joined4294967294 4294967294");
  add(0);
  add(1);
  add(0xffffffff);
  add(2);
  EXPECT_EQ(notes_.take(), "4294967295 0 1 2");
}

TEST(Sequencer, any_order_within_the_window_is_put_right) {
  EXPECT_TRUE(rc::check("blocks of records in random order", [] {
    Notes notes;
    Sequencer sequencer(notes);
    std::vector<std::uint32_t> numbers(60);
    std::iota(numbers.begin(), numbers.end(), 1);
    std::string expected;
    for (const auto n : numbers) expected += (n == 1 ? "" : " ") + std::to_string(n);
    for (std::size_t block = 0; block < numbers.size(); block += 10) {
      for (std::size_t i = block + 9; i > block; --i)
        std::swap(numbers[i], numbers[*rc::gen::inRange(block, i + 1)]);
    }
    for (const auto n : numbers) {
      const Packet packet = name_change(OX_OP_UNLINK, {n}, "/d/f");
      sequencer.add(std::get<Record>(*decode(packet)), packet, {});
    }
    RC_ASSERT(notes.take() == expected);
    RC_ASSERT(sequencer.holds_nothing());
  }));
}

TEST(Sequencer, whatever_comes_nothing_is_kept_for_ever) {
  EXPECT_TRUE(rc::check("random numbers and pages", [] {
    Notes notes;
    Sequencer sequencer(notes, {std::chrono::seconds(1), std::chrono::milliseconds(1), 8, 50000});
    const auto count = *rc::gen::inRange(1, 60);
    Clock::time_point now{};
    for (int i = 0; i < count; ++i) {
      const Stamp stamp{*rc::gen::inRange<std::uint32_t>(0, 40), rule_uuid(),
                        kTime + *rc::gen::inRange<std::uint64_t>(0, 50), OX_CP_NAMED,
                        *rc::gen::inRange<std::uint32_t>(0, 3)};
      const auto pages =
          write_data(stamp, "/d/f", 0, std::string(*rc::gen::element<std::size_t>(1, 9000), 'x'));
      const Packet &packet = pages[*rc::gen::inRange<std::size_t>(0, pages.size())];
      sequencer.add(std::get<Record>(*decode(packet)), packet, now);
      now += std::chrono::milliseconds(*rc::gen::inRange(0, 300));
      sequencer.expire(now);
    }
    sequencer.finish();
    RC_ASSERT(sequencer.holds_nothing());
    RC_ASSERT(!sequencer.next_deadline());
  }));
}

}  // namespace
}  // namespace tarn
