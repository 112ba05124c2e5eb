/* SPDX-License-Identifier: GPL-2.0 */
/* Another file system, or the same directory a second time, mounted below the source, which the
 * mount shows as part of its own tree; and a directory that was moved below, beside the mount. */
#define _GNU_SOURCE
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
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

#define HANGS (-1)

/* An ordinary user's rename, in a process of its own: 0, its error number, or HANGS. */
static int rename_as_user(const char *from, const char *to) {
  const int most_tenths = 100;
  int status;
  const pid_t child = fork();

  if (child == 0) {
    if (setuid(1000) != 0) _exit(255);
    _exit(rename(from, to) == 0 ? 0 : errno);
  }
  REQUIRE(child > 0);
  for (int tenths = 0; tenths < most_tenths; tenths++) {
    if (waitpid(child, &status, WNOHANG) == child)
      return WIFEXITED(status) ? WEXITSTATUS(status) : HANGS;
    usleep(100000);
  }
  kill(child, SIGKILL);
  return HANGS;
}

static void make_open_directory(const char *path) {
  REQUIRE(mkdir(path, 0777) == 0 && chmod(path, 0777) == 0);
}

static void a_directory_mounted_twice_does_not_hang(void) {
  make_open_directory("/lower/p");
  make_open_directory("/lower/q");
  REQUIRE(mount("/lower/p", "/lower/q", "none", MS_BIND, "") == 0);
  REQUIRE(put_file("/lower/p/f", "x", 1) == 0);
  EXPECT_EQ(rename_as_user("/mnt/p/f", "/mnt/q/g"), EXDEV);
  EXPECT_EQ(rename_as_user("/mnt/q/f", "/mnt/p/g"), EXDEV);
  /* By names that were not looked for before: the other place does not know of the change. */
  EXPECT_EQ(rename_as_user("/mnt/q/f", "/mnt/q/k"), 0);
  EXPECT_EQ(rename_as_user("/mnt/p/k", "/mnt/p/h"), 0);
  EXPECT(file_holds("/lower/p/h", "x", 1));
  EXPECT_EQ(umount2("/lower/q", MNT_DETACH), 0);
}

static void the_source_mounted_in_itself_does_not_hang(void) {
  EXPECT_EQ(chmod("/lower", 0777), 0);
  make_open_directory("/lower/self");
  make_open_directory("/lower/d");
  REQUIRE(mount("/lower", "/lower/self", "none", MS_BIND, "") == 0);
  REQUIRE(put_file("/lower/f", "x", 1) == 0);
  EXPECT_EQ(rename_as_user("/mnt/f", "/mnt/self/g"), EXDEV);
  EXPECT_EQ(rename_as_user("/mnt/self/f", "/mnt/self/d/f"), 0);
  EXPECT(file_holds("/lower/d/f", "x", 1));
  EXPECT_EQ(umount2("/lower/self", MNT_DETACH), 0);
}

static void a_directory_moved_below_does_not_hang(void) {
  struct stat known;

  make_open_directory("/lower/a");
  make_open_directory("/lower/a/x");
  make_open_directory("/lower/y");
  REQUIRE(put_file("/lower/a/x/f", "x", 1) == 0);
  REQUIRE(chdir("/mnt/a/x") == 0);
  REQUIRE(rename("/lower/a/x", "/lower/y/x") == 0);
  EXPECT_EQ(rename_as_user("/mnt/a/x/f", "/mnt/y/x/g"), 0);
  EXPECT_EQ(rename_as_user("g", "/mnt/y/x/h"), 0);
  EXPECT(file_holds("/lower/y/x/h", "x", 1));
  EXPECT_EQ(stat("/mnt/a/x", &known), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(chdir("/"), 0);
}

int main(void) {
  static const struct guest_case cases[] = {
      {"nothing_moves_between_the_two", GUEST_MOUNTED, nothing_moves_between_the_two},
      {"a_directory_mounted_twice_does_not_hang", GUEST_MOUNTED,
       a_directory_mounted_twice_does_not_hang},
      {"the_source_mounted_in_itself_does_not_hang", GUEST_MOUNTED,
       the_source_mounted_in_itself_does_not_hang},
      {"a_directory_moved_below_does_not_hang", GUEST_MOUNTED,
       a_directory_moved_below_does_not_hang},
      {NULL, GUEST_BARE, NULL},
  };

  return guest_main("mounted_below", cases);
}
