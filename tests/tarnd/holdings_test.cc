// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/holdings.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <set>
#include <string>
#include <thread>

#include "tarnd/process/task.h"
#include "tests/tarnd/booted_test.h"

namespace tarnd {
namespace {

// A kernel with a file.
class HoldingsTest : public BootedTest {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(BootedTest::SetUp());
    task_ = new Task(service_identity());
    uk_task_enter(task_->get());
    uk_node *root = nullptr;
    ASSERT_EQ(uk_node_at("/", &root), 0);
    ASSERT_EQ(uk_create(root, "file", O_RDWR, 0644, &node_, &file_, &stat_), 0);
    uk_node_put(root, 1);
  }
  void TearDown() override {
    uk_task_leave();
    delete task_;
    BootedTest::TearDown();
  }
  // One more reference to the file's node, as a lookup gives it.
  void look_up() {
    uk_node *root = nullptr, *again = nullptr;
    ASSERT_EQ(uk_node_at("/", &root), 0);
    ASSERT_EQ(uk_lookup(root, "file", &again, &stat_), 0);
    EXPECT_EQ(again, node_);
    uk_node_put(root, 1);
  }

  Task *task_ = nullptr;
  uk_node *node_ = nullptr;
  uk_file *file_ = nullptr;
  uk_stat stat_{};
};

TEST_F(HoldingsTest, ANodeIsHeldUntilItsLookupsAreForgotten) {
  Holdings holdings;
  look_up();
  look_up();
  holdings.add_node(node_, Kind::kFile);
  holdings.add_node(node_, Kind::kFile);
  holdings.drop_node(node_, 1);
  EXPECT_EQ(holdings.nodes(), 1u);
  holdings.drop_node(node_, 2);  // one more than there are
  EXPECT_EQ(holdings.nodes(), 0u);
  holdings.drop_node(node_, 1);
  uk_node_put(node_, 1);
  uk_release(file_);
}

TEST_F(HoldingsTest, WhatIsForgottenWhileItIsOpenGoesWithTheFile) {
  Holdings holdings;
  holdings.add_node(node_, Kind::kFile);
  holdings.add_file(file_, node_);
  holdings.drop_node(node_, 1);
  EXPECT_EQ(holdings.nodes(), 1u);
  holdings.drop_file(file_);
  EXPECT_EQ(holdings.nodes(), 0u);
}

TEST_F(HoldingsTest, DirectoriesAndOpenFilesAreCounted) {
  Holdings holdings;
  uk_node *root = nullptr, *dir = nullptr;
  ASSERT_EQ(uk_node_at("/", &root), 0);
  ASSERT_EQ(uk_mkdir(root, "dir", 0755, &dir, &stat_), 0);
  holdings.add_node(node_, Kind::kFile);
  EXPECT_EQ(holdings.open_files(), 0u);
  holdings.add_file(file_, node_);
  EXPECT_EQ(holdings.open_files(), 1u);
  holdings.add_node(dir, Kind::kDirectory);
  uk_node_get(dir);
  holdings.add_node(dir, Kind::kDirectory);
  EXPECT_EQ(holdings.nodes(), 2u);
  EXPECT_EQ(holdings.open_files(), 1u);
  holdings.drop_node(dir, 1);
  EXPECT_EQ(holdings.nodes(), 2u);
  holdings.drop_node(dir, 1);
  EXPECT_EQ(holdings.nodes(), 1u);
  holdings.clear();
  EXPECT_EQ(holdings.nodes() + holdings.open_files(), 0u);
  uk_node_put(root, 1);
}

TEST_F(HoldingsTest, ClearGivesEverythingBack) {
  Holdings holdings;
  look_up();
  holdings.add_node(node_, Kind::kFile);
  holdings.add_node(node_, Kind::kFile);
  holdings.add_file(file_, node_);
  holdings.clear();
  EXPECT_EQ(holdings.nodes(), 0u);
}

// Files of the directory, each with the reference that a lookup gives.
class ManyHoldingsTest : public HoldingsTest {
 protected:
  static constexpr size_t kFiles = 40;

  void SetUp() override {
    HoldingsTest::SetUp();
    ASSERT_EQ(uk_node_at("/", &root_), 0);
    for (size_t i = 0; i < kFiles; i++) {
      uk_node *node = nullptr;
      const std::string name = "file" + std::to_string(i);
      ASSERT_EQ(uk_mknod(root_, name.c_str(), S_IFREG | 0644, 0, &node, &stat_), 0);
      holdings_.add_node(node, Kind::kFile);
    }
  }
  void TearDown() override {
    holdings_.clear();
    uk_release(file_);
    uk_node_put(node_, 1);
    uk_node_put(root_, 1);
    HoldingsTest::TearDown();
  }

  Holdings holdings_;
  uk_node *root_ = nullptr;
};

TEST_F(ManyHoldingsTest, WhoIsToForgetGetsOtherNodesEachTime) {
  std::set<uk_node *> seen;
  for (int round = 0; round < 100 && seen.size() < kFiles; round++) {
    const auto picked = holdings_.wait_for_too_many(kFiles - 8);
    ASSERT_TRUE(picked.has_value());
    EXPECT_GE(picked->size(), 8u);
    seen.insert(picked->begin(), picked->end());
    for (uk_node *node : *picked) uk_node_put(node, 1);
  }
  EXPECT_EQ(seen.size(), kFiles);
}

TEST_F(ManyHoldingsTest, WhatIsOpenIsNotPicked) {
  uk_node *node = nullptr;
  uk_file *file = nullptr;
  ASSERT_EQ(uk_lookup(root_, "file7", &node, &stat_), 0);
  ASSERT_EQ(uk_open(node, O_RDONLY, &file), 0);
  holdings_.add_file(file, node);
  const auto picked = holdings_.wait_for_too_many(1);
  ASSERT_TRUE(picked.has_value());
  EXPECT_EQ(picked->size(), kFiles - 1);
  EXPECT_EQ(std::count(picked->begin(), picked->end(), node), 0);
  for (uk_node *each : *picked) uk_node_put(each, 1);
  uk_node_put(node, 1);
}

TEST_F(ManyHoldingsTest, DirectoriesArePickedNeverAndCountOnlyAsNodes) {
  for (int i = 0; i < 20; i++) {
    uk_node *dir = nullptr;
    ASSERT_EQ(uk_mkdir(root_, ("dir" + std::to_string(i)).c_str(), 0755, &dir, &stat_), 0);
    holdings_.add_node(dir, Kind::kDirectory);
  }
  EXPECT_EQ(holdings_.nodes(), kFiles + 20);
  const auto picked = holdings_.wait_for_too_many(kFiles - 1);
  ASSERT_TRUE(picked.has_value());
  EXPECT_EQ(picked->size(), 1 + (kFiles - 1) / 8);
  for (uk_node *each : *picked) uk_node_put(each, 1);
}

TEST_F(ManyHoldingsTest, TheWaitEndsWhenOneIsAddedOrItIsClosed) {
  std::thread adder([this] {
    const Task task(service_identity());
    const ActAs act(task);
    uk_node *node = nullptr;
    uk_stat stat{};
    EXPECT_EQ(uk_mknod(root_, "one more", S_IFREG | 0644, 0, &node, &stat), 0);
    holdings_.add_node(node, Kind::kFile);
  });
  const auto picked = holdings_.wait_for_too_many(kFiles);
  adder.join();
  ASSERT_TRUE(picked.has_value());
  EXPECT_FALSE(picked->empty());
  for (uk_node *node : *picked) uk_node_put(node, 1);
  std::thread closer([this] { holdings_.close(); });
  EXPECT_FALSE(holdings_.wait_for_too_many(kFiles + 1).has_value());
  closer.join();
}

}  // namespace
}  // namespace tarnd
