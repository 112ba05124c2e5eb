// SPDX-License-Identifier: GPL-2.0
// chown(): owners and groups, -1, links, and what it takes from the mode.
#include "case.h"

static void as_owner(void) {
  become(kUser, kUser, kGroup);
  OP(chown("mine", (uid_t)-1, kGroup));
  say_stat("mine");
  OP(chown("mine", kUser, kUser));
  OP(chown("mine", (uid_t)-1, kOtherUser));
  OP(chown("mine", kOtherUser, (gid_t)-1));
  OP(chown("mine", (uid_t)-1, (gid_t)-1));
  OP(chown("theirs", kUser, (gid_t)-1));
  OP(chown("theirs", (uid_t)-1, (gid_t)-1));
  OP(lchown("link", (uid_t)-1, kGroup));
  say_stat("mine");
  say_stat("theirs");
}

static void run_case(void) {
  need_root();
  put("f", "x");
  SETUP(mkdir("d", 0755));
  SETUP(symlink("f", "link"));
  SETUP(symlink("missing", "dangling"));
  OP(chown("f", kUser, kGroup));
  say_stat("f");
  OP(chown("f", (uid_t)-1, kOtherUser));
  say_stat("f");
  OP(chown("f", kOtherUser, (gid_t)-1));
  say_stat("f");
  OP(chown("link", 0, 0));
  say_stat("f");
  OP(lchown("link", kUser, kGroup));
  say_stat("link");
  say_stat("f");
  OP(chown("dangling", 1, 1));
  OP(chown("missing", 1, 1));
  OP(chown("d", kUser, kGroup));
  say_stat("d");
  const int fd = FD(open("f", O_RDONLY));
  OP(fchown(fd, kUser, kUser));
  say_fstat("f", fd);
  OP(fchownat(AT_FDCWD, "link", 7, 8, AT_SYMLINK_NOFOLLOW));
  say_stat("link");
  OP(chown("f", 70000, 4000000000u));
  say_stat("f");

  put("mine", "x");
  put("theirs", "x");
  SETUP(chown("mine", kUser, kUser));
  SETUP(lchown("link", kUser, kUser));
  in_child(as_owner);
}
