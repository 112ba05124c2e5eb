// SPDX-License-Identifier: GPL-2.0
// Set-user-id and set-group-id: taken away by a write, a truncation and a new owner, and when they
// stay.
#include "case.h"

static void set(mode_t mode) {
  SETUP(chown("f", kUser, kGroup));
  SETUP(chmod("f", mode));
}

static void touch_each(mode_t mode) {
  static const int flags[] = {O_WRONLY, O_WRONLY | O_APPEND, O_WRONLY | O_TRUNC};
  for (int i = 0; i < 3; i++) {
    set(mode);
    const int fd = FD(open("f", flags[i]));
    say_stat("f");
    OP(write(fd, "", 0));
    say_stat("f");
    OP(write(fd, "x", 1));
    say_stat("f");
    OP(close(fd));
  }
  set(mode);
  OP(truncate("f", 0));
  say_stat("f");
  set(mode);
  OP(chown("f", kUser, kGroup));
  say_stat("f");
  set(mode);
  OP(chown("f", (uid_t)-1, (gid_t)-1));
  say_stat("f");
}

static void as_root(void) {
  touch_each(06755);
  touch_each(06644);
  touch_each(02745);
}

// A file that everyone may write, written by somebody else.
static void as_other(void) {
  become(kOtherUser, kOtherUser, 0);
  const int fd = FD(open("f", O_WRONLY));
  say_stat("f");
  OP(write(fd, "y", 1));
  say_stat("f");
  OP(ftruncate(fd, 1));
  say_stat("f");
}

static void truncate_as_other(void) {
  become(kOtherUser, kOtherUser, 0);
  OP(truncate("f", 0));
  say_stat("f");
}

static void as_owner(void) {
  become(kUser, kUser, kGroup);
  OP(chmod("f", 06755));
  say_stat("f");
  OP(chown("f", (uid_t)-1, kUser));
  say_stat("f");
  OP(chmod("f", 06755));
  say_stat("f");
}

static void as_owner_outside_the_group(void) {
  become(kUser, kUser, 0);
  OP(chmod("f", 06755));
  say_stat("f");
}

static void run_case(void) {
  need_root();
  put("f", "x");
  as_root();
  set(06777);
  in_child(as_other);
  set(06777);
  in_child(truncate_as_other);
  set(02767);
  in_child(as_other);
  set(0755);
  in_child(as_owner);
  set(0755);
  in_child(as_owner_outside_the_group);
}
