// SPDX-License-Identifier: GPL-2.0
#include "tests/ukern/node_storm.h"
#include "ukern/door/uk_fs.h"

CASE(node_storm, memfs) {
  node_storm::in("/", 1000);
}

CASE(node_storm, memfs_with_revalidation) {
  struct uk_node *root, *dir;
  REQUIRE_EQ(uk_node_at("/", &root), 0);
  REQUIRE_EQ(uk_mkdir(root, "m", 0755, &dir, NULL), 0);
  uk_node_put(dir, 1);
  uk_node_put(root, 1);
  REQUIRE_EQ(uk_fs_mount("none", "/m", "memfs", 0, "revalidate"), 0);
  node_storm::in("/m", 1000);
  EXPECT_EQ(uk_fs_umount("/m", 0), 0);
}
