// SPDX-License-Identifier: GPL-2.0
// Which listings bring attributes.
#include "tarnd/fuse/readdirplus_advice.h"

#include <gtest/gtest.h>

namespace tarnd {
namespace {

const uk_node *node(std::uintptr_t number) {
  return reinterpret_cast<const uk_node *>(number * 16);
}
const uk_node *const kOne = node(1);
const uk_node *const kTwo = node(2);
constexpr pid_t kFind = 100, kList = 101;

TEST(ReaddirplusAdvice, who_only_lists_gets_names) {
  ReaddirplusAdvice advice;
  EXPECT_FALSE(advice.begun(kFind, kOne));
  EXPECT_FALSE(advice.goes_on(kFind, kOne));
  EXPECT_FALSE(advice.begun(kFind, kTwo));
}

TEST(ReaddirplusAdvice, who_looks_files_up_gets_attributes_with_the_next_directory) {
  ReaddirplusAdvice advice;
  EXPECT_FALSE(advice.begun(kList, kOne));
  advice.looked_up(kList, kOne);
  EXPECT_TRUE(advice.goes_on(kList, kOne));
  EXPECT_TRUE(advice.begun(kList, kTwo));
  EXPECT_TRUE(advice.goes_on(kList, kTwo));
}

TEST(ReaddirplusAdvice, a_fair_part_of_the_files_is_needed) {
  ReaddirplusAdvice advice;
  EXPECT_FALSE(advice.begun(kList, kOne));
  advice.listed(kList, kOne, 3 * ReaddirplusAdvice::kFairPart);
  advice.looked_up(kList, kOne);
  advice.looked_up(kList, kOne);
  EXPECT_FALSE(advice.goes_on(kList, kOne));
  advice.looked_up(kList, kOne);
  EXPECT_TRUE(advice.goes_on(kList, kOne));
}

TEST(ReaddirplusAdvice, who_looks_one_name_up_in_each_directory_gets_names) {
  ReaddirplusAdvice advice;
  for (int i = 0; i < 100; i++) {
    const uk_node *directory = i % 2 ? kOne : kTwo;
    EXPECT_FALSE(advice.begun(kFind, directory));
    advice.listed(kFind, directory, 2 * ReaddirplusAdvice::kFairPart);
    advice.looked_up(kFind, directory);
  }
}

TEST(ReaddirplusAdvice, all_parts_of_one_directory_count) {
  ReaddirplusAdvice advice;
  EXPECT_FALSE(advice.begun(kList, kOne));
  advice.listed(kList, kOne, ReaddirplusAdvice::kFairPart);
  advice.listed(kList, kOne, ReaddirplusAdvice::kFairPart);
  advice.listed(kFind, kOne, ReaddirplusAdvice::kFairPart);
  advice.listed(kList, kTwo, ReaddirplusAdvice::kFairPart);
  advice.looked_up(kList, kOne);
  EXPECT_FALSE(advice.begun(kList, kTwo));
  EXPECT_FALSE(advice.begun(kList, kOne));
  advice.listed(kList, kOne, 2 * ReaddirplusAdvice::kFairPart);
  advice.looked_up(kList, kOne);
  advice.looked_up(kList, kOne);
  EXPECT_TRUE(advice.begun(kList, kTwo));
}

TEST(ReaddirplusAdvice, files_of_other_directories_do_not_count) {
  ReaddirplusAdvice advice;
  EXPECT_FALSE(advice.begun(kList, kOne));
  advice.looked_up(kList, kTwo);
  EXPECT_FALSE(advice.begun(kList, kTwo));
}

TEST(ReaddirplusAdvice, what_others_look_up_does_not_count) {
  ReaddirplusAdvice advice;
  EXPECT_FALSE(advice.begun(kFind, kOne));
  advice.looked_up(kList, kOne);
  EXPECT_FALSE(advice.begun(kFind, kTwo));
}

TEST(ReaddirplusAdvice, now_and_then_it_is_tried_without) {
  ReaddirplusAdvice advice;
  EXPECT_FALSE(advice.begun(kList, kOne));
  advice.looked_up(kList, kOne);
  for (int i = 0; i < ReaddirplusAdvice::kDirectories; i++) EXPECT_TRUE(advice.begun(kList, kTwo));
  EXPECT_FALSE(advice.begun(kList, kTwo));
  EXPECT_FALSE(advice.begun(kList, kOne));
  advice.looked_up(kList, kOne);
  EXPECT_TRUE(advice.begun(kList, kTwo));
}

TEST(ReaddirplusAdvice, a_program_in_anothers_slot_begins_anew) {
  ReaddirplusAdvice advice;
  EXPECT_FALSE(advice.begun(kList, kOne));
  advice.looked_up(kList, kOne);
  EXPECT_FALSE(advice.begun(kList + 256, kTwo));
  EXPECT_FALSE(advice.goes_on(kList, kTwo));
}

}  // namespace
}  // namespace tarnd
