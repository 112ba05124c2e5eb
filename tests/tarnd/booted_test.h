/* SPDX-License-Identifier: GPL-2.0 */
/* A kernel for each test, with an empty memfs as its root; its shutdown reports what was not given
 * back. */
#ifndef TESTS_TARND_BOOTED_TEST_H
#define TESTS_TARND_BOOTED_TEST_H

#include <gtest/gtest.h>

#include "ukern/door/uk_core.h"

namespace tarnd {

class BootedTest : public ::testing::Test {
 protected:
  void SetUp() override {
    uk_boot_options options{};
    options.root_type = "memfs";
    options.root_source = "";
    ASSERT_EQ(uk_boot(&options), 0);
  }
  void TearDown() override { EXPECT_EQ(uk_shutdown(), 0); }
};

}  // namespace tarnd

#endif
