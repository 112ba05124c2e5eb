// SPDX-License-Identifier: GPL-2.0
// What is remembered of copies when there are more of them than fit.
#include "mirrord/copy_origins.h"

#include <gtest/gtest.h>

#include <fmt/format.h>

namespace tarn {
namespace {

constexpr std::size_t kMost = CopyOrigins::kMost;

struct stat file(ino_t inode, nlink_t names) {
  struct stat status = {};
  status.st_mode = S_IFREG | 0644;
  status.st_ino = inode;
  status.st_nlink = names;
  return status;
}

void copy(CopyOrigins &origins, const std::string &path, ino_t inode, nlink_t names) {
  origins.put(path, {1, inode}, file(inode, names), true, 1'000'000'000);
}

/* Its other name may come much later in a large tree, and changes by one outside much later still.
 */
TEST(CopyOriginsTest, copies_with_one_name_are_forgotten_first) {
  CopyOrigins origins;
  copy(origins, "a/first", 1, 2);
  for (std::size_t i = 0; i < 2 * kMost; ++i) copy(origins, fmt::format("b/{:07}", i), 10 + i, 1);
  EXPECT_EQ(origins.paths_of(file(1, 2)), std::set<std::string>{"a/first"});
  EXPECT_TRUE(origins.watched("a/first"));
  EXPECT_EQ(origins.with_many_links(), std::vector<std::string>{"a/first"});
  EXPECT_FALSE(origins.has_forgotten());
  EXPECT_TRUE(origins.has(fmt::format("b/{:07}", 2 * kMost - 1)));
}

TEST(CopyOriginsTest, more_names_of_many_than_fit_are_told) {
  CopyOrigins origins;
  for (std::size_t i = 0; i < kMost; ++i) copy(origins, fmt::format("b/{:07}", i), 10 + i, 2);
  EXPECT_FALSE(origins.has_forgotten());
  copy(origins, "c", 1, 2);
  EXPECT_TRUE(origins.has_forgotten());
  EXPECT_EQ(origins.with_many_links().size(), kMost);
}

/* However a copy comes to have several names, or is gone again. */
TEST(CopyOriginsTest, it_is_known_at_any_time_how_many_can_be_forgotten) {
  CopyOrigins origins;
  for (std::size_t i = 0; i < kMost / 2; ++i) copy(origins, fmt::format("b/{:07}", i), 10 + i, 1);
  for (std::size_t i = 0; i < kMost / 2; i += 2) origins.linked(fmt::format("b/{:07}", i), "x");
  origins.watch("b/0000001");
  origins.moved("b", "d");
  origins.watch("d/0000003", {1, 13}, file(13, 2), 0, 1'000'000'000);
  origins.removed("d/0000000");
  for (std::size_t i = 0; i < kMost; ++i) copy(origins, fmt::format("e/{:07}", i), 10 + i, 1);
  EXPECT_FALSE(origins.has_forgotten());
  EXPECT_FALSE(origins.watched("d/0000000"));
  for (const char *path : {"d/0000001", "d/0000002", "d/0000003", "d/0000004", "x"})
    EXPECT_TRUE(origins.watched(path)) << path;
}

}  // namespace
}  // namespace tarn
