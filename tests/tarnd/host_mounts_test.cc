// SPDX-License-Identifier: GPL-2.0
#include "tarnd/host_mounts.h"

#include <gtest/gtest.h>

#include <sstream>

namespace tarnd {
namespace {

TEST(HostMounts, AreReadFromTheTable) {
  std::istringstream table(
      "36 35 98:0 /mnt1 /mnt\\0402 rw,nosuid master:1 - ext3 /dev/root rw,errors=continue\n"
      "37 35 0:41 / /mnt\\134 ro,nodev,relatime - fuse.tarn /x - y rw\n"
      "no mount\n");
  const auto mounts = parse_mountinfo(table);
  ASSERT_EQ(mounts.size(), 2u);
  EXPECT_EQ(mounts[0].place, "/mnt 2");
  EXPECT_EQ(mounts[0].type, "ext3");
  EXPECT_TRUE(mounts[0].has("nosuid"));
  EXPECT_TRUE(mounts[0].has("rw"));
  EXPECT_FALSE(mounts[0].has("suid"));
  EXPECT_EQ(mounts[1].place, "/mnt\\");
  EXPECT_EQ(mounts[1].type, "fuse.tarn");
  EXPECT_TRUE(mounts[1].has("nodev"));
  EXPECT_FALSE(mounts[1].has("nosuid"));
}

}  // namespace
}  // namespace tarnd
