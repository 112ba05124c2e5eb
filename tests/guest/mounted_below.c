/* SPDX-License-Identifier: GPL-2.0 */
/* Another file system mounted below the source, which the mount shows as part of its own tree. */
#define _GNU_SOURCE
#include <errno.h>
#include <stdio.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "guest.h"

static void nothing_moves_between_the_two(void) {
  REQUIRE(mkdir("/lower/sub", 0755) == 0 && mkdir("/lower/dir", 0755) == 0);
  REQUIRE(mount("none", "/lower/sub", "ramfs", 0, "") == 0);
  REQUIRE(put_file("/mnt/f", "x", 1) == 0 && put_file("/lower/sub/g", "y", 1) == 0);
  EXPECT_EQ(rename("/mnt/f", "/mnt/sub/f"), -1);
  EXPECT_EQ(errno, EXDEV);
  EXPECT_EQ(rename("/mnt/sub/g", "/mnt/dir/g"), -1);
  EXPECT_EQ(errno, EXDEV);
  EXPECT_EQ(link("/mnt/f", "/mnt/sub/f"), -1);
  EXPECT_EQ(errno, EXDEV);
  EXPECT_EQ(rename("/mnt/sub", "/mnt/dir/sub"), -1);
  EXPECT_EQ(errno, EBUSY);
  EXPECT(file_holds("/lower/f", "x", 1));
  EXPECT(file_holds("/lower/sub/g", "y", 1));
  EXPECT_EQ(umount2("/lower/sub", MNT_DETACH), 0);
}

int main(void) {
  static const struct guest_case cases[] = {
      {"nothing_moves_between_the_two", GUEST_MOUNTED, nothing_moves_between_the_two},
      {NULL, GUEST_BARE, NULL},
  };

  return guest_main("mounted_below", cases);
}
