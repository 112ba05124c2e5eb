// SPDX-License-Identifier: GPL-2.0
#include "base/mount_table.h"

#include <gtest/gtest.h>

namespace tarn {
namespace {

TEST(MountTable, is_read_from_the_kernels_text) {
  const auto mounts = read_mount_table(
      "36 35 98:0 /mnt1 /mnt\\0402 rw,nosuid master:1 - ext3 /dev/root rw,errors=continue\n"
      "37 35 0:41 / /mnt\\134 ro,nodev,relatime - fuse.tarn /x - y rw\n"
      "no mount\n");
  ASSERT_EQ(mounts.size(), 2u);
  EXPECT_EQ(mounts[0].mountpoint, "/mnt 2");
  EXPECT_EQ(mounts[0].device, "98:0");
  EXPECT_EQ(mounts[0].root, "/mnt1");
  EXPECT_EQ(mounts[0].type, "ext3");
  EXPECT_EQ(mounts[0].lower, "");
  EXPECT_TRUE(mounts[0].has_option("nosuid"));
  EXPECT_TRUE(mounts[0].has_option("rw"));
  EXPECT_FALSE(mounts[0].has_option("suid"));
  EXPECT_EQ(mounts[1].mountpoint, "/mnt\\");
  EXPECT_EQ(mounts[1].type, "fuse.tarn");
  EXPECT_EQ(mounts[1].lower, "/x");
  EXPECT_TRUE(mounts[1].has_option("nodev"));
  EXPECT_FALSE(mounts[1].has_option("nosuid"));
}

}  // namespace
}  // namespace tarn
