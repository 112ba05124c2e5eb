// SPDX-License-Identifier: GPL-2.0
// utime(), utimes() and utimensat(): which times are set, by whom.
#include "case.h"
#include <sys/time.h>
#include <time.h>
#include <utime.h>

static void say_times(const char *path) {
  struct stat st;
  SETUP(lstat(path, &st));
  const time_t now = time(NULL);
  const int atime_now = labs(now - st.st_atime) < 1000, mtime_now = labs(now - st.st_mtime) < 1000;
  say("%s: accessed %lld, modified %lld", path, atime_now ? 0LL : (long long)st.st_atime,
      mtime_now ? 0LL : (long long)st.st_mtime);
}

static void as_user(void) {
  struct utimbuf both = {1000, 2000};
  struct timespec omit[2] = {{5, UTIME_OMIT}, {6, UTIME_OMIT}};
  become(kUser, kUser, 0);
  OP(utime("f", &both));
  OP(utime("f", NULL));
  OP(utime("writable", &both));
  OP(utime("writable", NULL));
  OP(utimensat(AT_FDCWD, "f", omit, 0));
  say_times("f");
  say_times("writable");
}

static void run_case(void) {
  put("f", "x");
  SETUP(mkdir("d", 0755));
  SETUP(symlink("f", "link"));
  struct utimbuf both = {1000000000, 1100000000};
  OP(utime("f", &both));
  say_times("f");
  OP(utime("f", NULL));
  say_times("f");
  struct timeval fine[2] = {{86400, 123456}, {172800, 654321}};
  OP(utimes("f", fine));
  say_times("f");
  OP(utimes("d", fine));
  if (!over_nfs()) say_times("d");  // whose client may say what it was told before
  OP(utimes("link", fine));
  fine[0].tv_usec = 1000000;
  OP(utimes("f", fine));
  OP(utime("missing", &both));
  OP(utime("f/x", &both));
  struct timespec set[2] = {{0, 0}, {1, 0}};
  OP(utimensat(AT_FDCWD, "f", set, 0));
  say_times("f");
  set[0].tv_sec = set[1].tv_sec = 2000000000;
  OP(utimensat(AT_FDCWD, "f", set, 0));
  say_times("f");
  // One alone, the other as it is; these came with later kernels.
  struct timespec one[2] = {{1500000000, 0}, {0, UTIME_OMIT}};
  OP(utimensat(AT_FDCWD, "f", one, 0));
  say_times("f");
  one[0].tv_nsec = UTIME_NOW;
  OP(utimensat(AT_FDCWD, "f", one, 0));
  say_times("f");
  OP(utimensat(AT_FDCWD, "link", set, AT_SYMLINK_NOFOLLOW));
  say_times("f");
  const int fd = FD(open("f", O_RDONLY));
  OP(futimens(fd, set));
  OP(unlink("f"));
  set[1].tv_sec = 5;
  OP(futimens(fd, set));
  struct stat st;
  SETUP(fstat(fd, &st));
  say("modified %lld", (long long)st.st_mtime);

  put("f", "x");
  SETUP(chmod("f", 0644));
  put("writable", "x");
  SETUP(chmod("writable", 0666));
  SETUP(utime("f", &both));
  SETUP(utime("writable", &both));
  if (geteuid() == 0) in_child(as_user);
}
