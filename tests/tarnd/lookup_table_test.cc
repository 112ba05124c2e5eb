// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/lookup_table.h"

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
class LookupTableTest : public BootedTest {
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

TEST_F(LookupTableTest, a_node_is_referenced_until_its_lookups_are_forgotten) {
  LookupTable table;
  look_up();
  look_up();
  table.add_lookup(node_, Kind::kFile);
  table.add_lookup(node_, Kind::kFile);
  table.forget(node_, 1);
  EXPECT_EQ(table.nodes(), 1u);
  table.forget(node_, 2);  // one more than there are
  EXPECT_EQ(table.nodes(), 0u);
  table.forget(node_, 1);
  uk_node_put(node_, 1);
  uk_release(file_);
}

TEST_F(LookupTableTest, what_is_forgotten_while_it_is_open_goes_with_the_file) {
  LookupTable table;
  table.add_lookup(node_, Kind::kFile);
  table.add_open_file(file_, node_);
  table.forget(node_, 1);
  EXPECT_EQ(table.nodes(), 1u);
  table.release(file_);
  EXPECT_EQ(table.nodes(), 0u);
}

TEST_F(LookupTableTest, directories_and_open_files_are_counted) {
  LookupTable table;
  uk_node *root = nullptr, *dir = nullptr;
  ASSERT_EQ(uk_node_at("/", &root), 0);
  ASSERT_EQ(uk_mkdir(root, "dir", 0755, &dir, &stat_), 0);
  table.add_lookup(node_, Kind::kFile);
  EXPECT_EQ(table.open_files(), 0u);
  table.add_open_file(file_, node_);
  EXPECT_EQ(table.open_files(), 1u);
  table.add_lookup(dir, Kind::kDirectory);
  uk_node_get(dir);
  table.add_lookup(dir, Kind::kDirectory);
  EXPECT_EQ(table.nodes(), 2u);
  EXPECT_EQ(table.open_files(), 1u);
  table.forget(dir, 1);
  EXPECT_EQ(table.nodes(), 2u);
  table.forget(dir, 1);
  EXPECT_EQ(table.nodes(), 1u);
  table.clear();
  EXPECT_EQ(table.nodes() + table.open_files(), 0u);
  uk_node_put(root, 1);
}

TEST_F(LookupTableTest, clear_drops_all_references) {
  LookupTable table;
  look_up();
  table.add_lookup(node_, Kind::kFile);
  table.add_lookup(node_, Kind::kFile);
  table.add_open_file(file_, node_);
  table.clear();
  EXPECT_EQ(table.nodes(), 0u);
}

// Files of the directory, each with the reference that a lookup gives.
class EvictionTest : public LookupTableTest {
 protected:
  static constexpr size_t kFiles = 40;

  void SetUp() override {
    LookupTableTest::SetUp();
    ASSERT_EQ(uk_node_at("/", &root_), 0);
    for (size_t i = 0; i < kFiles; i++) {
      uk_node *node = nullptr;
      const std::string name = "file" + std::to_string(i);
      ASSERT_EQ(uk_mknod(root_, name.c_str(), S_IFREG | 0644, 0, &node, &stat_), 0);
      table_.add_lookup(node, Kind::kFile);
    }
  }
  void TearDown() override {
    table_.clear();
    uk_release(file_);
    uk_node_put(node_, 1);
    uk_node_put(root_, 1);
    LookupTableTest::TearDown();
  }

  LookupTable table_;
  uk_node *root_ = nullptr;
};

TEST_F(EvictionTest, each_round_evicts_other_nodes) {
  std::set<uk_node *> seen;
  for (int round = 0; round < 100 && seen.size() < kFiles; round++) {
    const auto victims = table_.wait_for_eviction(kFiles - 8);
    ASSERT_TRUE(victims.has_value());
    EXPECT_GE(victims->size(), 8u);
    seen.insert(victims->begin(), victims->end());
    for (uk_node *node : *victims) uk_node_put(node, 1);
  }
  EXPECT_EQ(seen.size(), kFiles);
}

TEST_F(EvictionTest, open_files_are_not_evicted) {
  uk_node *node = nullptr;
  uk_file *file = nullptr;
  ASSERT_EQ(uk_lookup(root_, "file7", &node, &stat_), 0);
  ASSERT_EQ(uk_open(node, O_RDONLY, &file), 0);
  table_.add_open_file(file, node);
  const auto victims = table_.wait_for_eviction(1);
  ASSERT_TRUE(victims.has_value());
  EXPECT_EQ(victims->size(), kFiles - 1);
  EXPECT_EQ(std::count(victims->begin(), victims->end(), node), 0);
  for (uk_node *each : *victims) uk_node_put(each, 1);
  uk_node_put(node, 1);
}

TEST_F(EvictionTest, directories_are_never_evicted_and_count_only_as_nodes) {
  for (int i = 0; i < 20; i++) {
    uk_node *dir = nullptr;
    ASSERT_EQ(uk_mkdir(root_, ("dir" + std::to_string(i)).c_str(), 0755, &dir, &stat_), 0);
    table_.add_lookup(dir, Kind::kDirectory);
  }
  EXPECT_EQ(table_.nodes(), kFiles + 20);
  const auto victims = table_.wait_for_eviction(kFiles - 1);
  ASSERT_TRUE(victims.has_value());
  EXPECT_EQ(victims->size(), 1 + (kFiles - 1) / 8);
  for (uk_node *each : *victims) uk_node_put(each, 1);
}

TEST_F(EvictionTest, the_wait_ends_when_one_is_added_or_it_is_closed) {
  std::thread adder([this] {
    const Task task(service_identity());
    const ActAs act(task);
    uk_node *node = nullptr;
    uk_stat stat{};
    EXPECT_EQ(uk_mknod(root_, "one more", S_IFREG | 0644, 0, &node, &stat), 0);
    table_.add_lookup(node, Kind::kFile);
  });
  const auto victims = table_.wait_for_eviction(kFiles);
  adder.join();
  ASSERT_TRUE(victims.has_value());
  EXPECT_FALSE(victims->empty());
  for (uk_node *node : *victims) uk_node_put(node, 1);
  std::thread closer([this] { table_.close(); });
  EXPECT_FALSE(table_.wait_for_eviction(kFiles + 1).has_value());
  closer.join();
}

}  // namespace
}  // namespace tarnd
