// SPDX-License-Identifier: GPL-2.0
#include "tarnd/holdings.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include "tarnd/task.h"
#include "ukern/uk_core.h"

namespace tarnd {
namespace {

// A kernel with a file, whose shutdown reports what was not given back.
class HoldingsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    uk_boot_options options{};
    options.root_type = "memfs";
    options.root_source = "";
    ASSERT_EQ(uk_boot(&options), 0);
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
    EXPECT_EQ(uk_shutdown(), 0);
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
  EXPECT_FALSE(holdings.add_node(node_));
  EXPECT_FALSE(holdings.add_node(node_));
  holdings.drop_node(node_, 1);
  EXPECT_EQ(holdings.nodes(), 1u);
  holdings.drop_node(node_, 1);
  EXPECT_EQ(holdings.nodes(), 0u);
  holdings.drop_node(node_, 1);  // more than there were
  uk_release(file_);
}

TEST_F(HoldingsTest, AnOpenNodeIsToldFromOneThatIsNot) {
  Holdings holdings;
  holdings.add_file(file_, node_);
  EXPECT_TRUE(holdings.add_node(node_));
  holdings.drop_file(file_);
  look_up();
  EXPECT_FALSE(holdings.add_node(node_));
  holdings.drop_node(node_, 2);
  EXPECT_EQ(holdings.nodes(), 0u);
}

TEST_F(HoldingsTest, WhatIsForgottenWhileItIsOpenGoesWithTheFile) {
  Holdings holdings;
  holdings.add_node(node_);
  holdings.add_file(file_, node_);
  holdings.drop_node(node_, 1);
  EXPECT_EQ(holdings.nodes(), 1u);
  holdings.drop_file(file_);
  EXPECT_EQ(holdings.nodes(), 0u);
}

TEST_F(HoldingsTest, ClearGivesEverythingBack) {
  Holdings holdings;
  look_up();
  holdings.add_node(node_);
  holdings.add_node(node_);
  holdings.add_file(file_, node_);
  holdings.clear();
  EXPECT_EQ(holdings.nodes(), 0u);
}

}  // namespace
}  // namespace tarnd
