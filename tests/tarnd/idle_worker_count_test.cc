// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/idle_worker_count.h"

#include <gtest/gtest.h>

namespace tarnd {
namespace {

constexpr int kPeriod = IdleWorkerCount::kPeriod;

IdleWorkerCount::Sample sample(int busy, int idle, bool queued, int slow = 0) {
  return {.busy = busy, .available = busy + idle - slow, .idle = idle, .queued = queued};
}

// One period. In `stalled` of its samples a request is queued while all workers are busy.
void add_period(IdleWorkerCount &count, int stalled) {
  for (int i = 0; i < kPeriod; i++) count.add(sample(count.target(), 0, i < stalled));
}

// The same. In `needed` of its samples all workers are busy, in the others one is idle.
void add_low_period(IdleWorkerCount &count, int needed) {
  const int target = count.target();
  for (int i = 0; i < kPeriod; i++)
    count.add(i < needed ? sample(target, 0, false) : sample(target - 1, 1, false));
}

int periods_until_decrease(IdleWorkerCount &count) {
  const int before = count.target();
  int periods = 0;
  for (; count.target() == before && periods < 10 * IdleWorkerCount::kMaxPatience; periods++)
    add_low_period(count, 0);
  return periods;
}

TEST(IdleWorkerCount, one_serves_a_program_that_waits_for_each_reply) {
  IdleWorkerCount count(4);
  EXPECT_EQ(count.target(), 1);
  for (int i = 0; i < 100; i++) {
    count.add(sample(1, 0, false));
    count.add(sample(0, 1, true));
    count.add(sample(0, 1, false));
  }
  EXPECT_EQ(count.target(), 1);
}

TEST(IdleWorkerCount, it_grows_by_one_while_requests_are_queued_in_half_of_the_samples) {
  IdleWorkerCount count(4);
  for (int target = 2; target <= 4; target++) {
    add_period(count, kPeriod / 2 - 1);
    EXPECT_EQ(count.target(), target - 1);
    add_period(count, kPeriod / 2);
    EXPECT_EQ(count.target(), target);
  }
  add_period(count, kPeriod);
  EXPECT_EQ(count.target(), 4);
}

TEST(IdleWorkerCount, a_request_that_an_idle_worker_is_about_to_take_is_not_stalled) {
  IdleWorkerCount count(4);
  for (int i = 0; i < 4 * kPeriod; i++) count.add(sample(1, 1, true));
  EXPECT_EQ(count.target(), 1);
}

TEST(IdleWorkerCount, it_decreases_when_fewer_suffice_in_nearly_all_samples) {
  IdleWorkerCount count(4);
  add_period(count, kPeriod);
  for (int i = 0; i < 10; i++) add_low_period(count, kPeriod / 8 + 1);
  EXPECT_EQ(count.target(), 2);
  for (int i = 0; i < 10; i++) add_low_period(count, kPeriod / 8);
  EXPECT_EQ(count.target(), 1);
}

TEST(IdleWorkerCount, a_queued_request_needs_a_worker_too) {
  IdleWorkerCount count(4);
  add_period(count, kPeriod);
  for (int i = 0; i < 10 * kPeriod; i++) count.add(sample(1, 1, true));
  EXPECT_EQ(count.target(), 2);
}

TEST(IdleWorkerCount, after_a_lull_the_others_are_parked_at_once) {
  IdleWorkerCount count(4);
  for (int i = 0; i < 3; i++) add_period(count, kPeriod);
  ASSERT_EQ(count.target(), 4);
  EXPECT_GT(periods_until_decrease(count), 1);
  EXPECT_EQ(periods_until_decrease(count), 1);
  EXPECT_EQ(periods_until_decrease(count), 1);
  EXPECT_EQ(count.target(), 1);
}

TEST(IdleWorkerCount, each_premature_decrease_doubles_the_patience) {
  IdleWorkerCount count(2);
  for (int periods = 2; periods <= IdleWorkerCount::kMaxPatience; periods *= 2) {
    add_period(count, kPeriod);
    EXPECT_EQ(periods_until_decrease(count), periods);
  }
  add_period(count, kPeriod);
  EXPECT_EQ(periods_until_decrease(count), IdleWorkerCount::kMaxPatience);
}

TEST(IdleWorkerCount, patience_shrinks_while_one_suffices) {
  IdleWorkerCount count(2);
  for (int i = 0; i < 5; i++) {
    add_period(count, kPeriod);
    periods_until_decrease(count);
  }
  for (int i = 0; i < 10; i++) add_period(count, 0);
  add_period(count, kPeriod);
  EXPECT_EQ(periods_until_decrease(count), 2);
}

TEST(IdleWorkerCount, the_first_request_behind_a_slow_one_adds_a_worker) {
  IdleWorkerCount count(4);
  count.add(sample(1, 0, false, 1));
  EXPECT_EQ(count.target(), 1);
  count.add(sample(1, 0, true, 1));
  EXPECT_EQ(count.target(), 2);
  count.add(sample(2, 0, true, 2));
  EXPECT_EQ(count.target(), 3);
}

TEST(IdleWorkerCount, one_processor_has_a_second_for_slow_requests_alone) {
  IdleWorkerCount count(1);
  for (int i = 0; i < 10; i++) add_period(count, kPeriod);
  EXPECT_EQ(count.target(), 1);
  count.add(sample(1, 0, true, 1));
  EXPECT_EQ(count.target(), 2);
  count.add(sample(2, 0, true, 2));
  EXPECT_EQ(count.target(), 2);
  EXPECT_EQ(periods_until_decrease(count), 2);
}

TEST(IdleWorkerCount, it_does_not_decrease_while_a_request_is_slow) {
  IdleWorkerCount count(4);
  add_period(count, kPeriod);
  for (int i = 0; i < 10 * kPeriod; i++) count.add(sample(1, 2, false, 1));
  EXPECT_EQ(count.target(), 2);
}

}  // namespace
}  // namespace tarnd
