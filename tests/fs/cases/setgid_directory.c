// SPDX-License-Identifier: GPL-2.0
// A set-group-id directory hands its group on; others give the maker's.
#include "case.h"

static void make_all(const char *dir) {
  char path[64];
  snprintf(path, sizeof(path), "%s/file", dir);
  OP(close(FD(open(path, O_CREAT | O_WRONLY, 0644))));
  say_stat(path);
  snprintf(path, sizeof(path), "%s/runs", dir);
  OP(close(FD(open(path, O_CREAT | O_WRONLY, 02755))));
  say_stat(path);
  snprintf(path, sizeof(path), "%s/dir", dir);
  OP(mkdir(path, 0755));
  say_stat(path);
  snprintf(path, sizeof(path), "%s/link", dir);
  OP(symlink("x", path));
  say_stat(path);
  snprintf(path, sizeof(path), "%s/fifo", dir);
  OP(mkfifo(path, 0600));
  say_stat(path);
}

static void as_member(void) {
  become(kUser, kUser, kGroup);
  make_all("plain");
  make_all("handing");
}

static void as_stranger(void) {
  become(kOtherUser, kOtherUser, 0);
  make_all("open");
}

static void run_case(void) {
  need_root();
  SETUP(mkdir("plain", 0777));
  SETUP(mkdir("handing", 0777));
  SETUP(mkdir("open", 0777));
  SETUP(chown("plain", 0, kGroup));
  SETUP(chown("handing", 0, kGroup));
  SETUP(chown("open", 0, kGroup));
  SETUP(chmod("plain", 0777));
  SETUP(chmod("handing", 02777));
  SETUP(chmod("open", 02777));
  in_child(as_member);
  in_child(as_stranger);
  SETUP(mkdir("root", 0777));
  SETUP(chown("root", 0, kGroup));
  SETUP(chmod("root", 02777));
  make_all("root");
}
