// SPDX-License-Identifier: GPL-2.0
// What owner, group and others may: open, search, list, make, remove, change.
#include "case.h"

static void try_file(const char *path) {
  int fd = FD(open(path, O_RDONLY));
  if (fd >= 0) close(fd);
  fd = FD(open(path, O_WRONLY));
  if (fd >= 0) close(fd);
  fd = FD(open(path, O_RDWR));
  if (fd >= 0) close(fd);
  OP(truncate(path, 0));
  OP(chmod(path, 0666));
}

static void try_all(uid_t uid, gid_t gid, gid_t more) {
  char path[64];
  struct stat st;
  become(uid, gid, more);
  for (unsigned mode = 0; mode < 8; mode++) {
    snprintf(path, sizeof(path), "f%u", mode);
    say("%s", path);
    try_file(path);
    snprintf(path, sizeof(path), "d%u", mode);
    say("%s", path);
    FD(open(path, O_RDONLY));
    snprintf(path, sizeof(path), "d%u/f", mode);
    OP(stat(path, &st));
    FD(open(path, O_RDONLY));
    OP(rename(path, path));
    OP(unlink(path));
    snprintf(path, sizeof(path), "d%u/new%u", mode, uid);
    FD(open(path, O_CREAT | O_WRONLY, 0644));
    unlink(path);
    OP(mkdir(path, 0755));
    rmdir(path);
    OP(symlink("x", path));
    unlink(path);
    OP(mkfifo(path, 0600));
    unlink(path);
    put("mine", "x");
    OP(link("mine", path));
    unlink(path);
    OP(rename("mine", path));
    unlink(path);
    snprintf(path, sizeof(path), "d%u", mode);
    if (OP(chdir(path)) == 0) {
      OP(access("f", R_OK));
      OP(chdir(".."));
    }
  }
}

// Each digit of a mode in turn is m, the others let nobody do anything.
static void make_all(int shift) {
  char path[64];
  for (unsigned mode = 0; mode < 8; mode++) {
    snprintf(path, sizeof(path), "f%u", mode);
    unlink(path);
    put(path, "content");
    SETUP(chown(path, kUser, kGroup));
    SETUP(chmod(path, mode << shift));
    snprintf(path, sizeof(path), "d%u", mode);
    SETUP(mkdir(path, 0700));
    snprintf(path, sizeof(path), "d%u/f", mode);
    put(path, "content");
    SETUP(chmod(path, 0666));
    snprintf(path, sizeof(path), "d%u", mode);
    SETUP(chown(path, kUser, kGroup));
    SETUP(chmod(path, mode << shift));
  }
}

static void clear_all(void) {
  char path[64];
  for (unsigned mode = 0; mode < 8; mode++) {
    snprintf(path, sizeof(path), "d%u/f", mode);
    unlink(path);
    static const uid_t users[] = {kUser, kOtherUser};
    for (int i = 0; i < 2; i++) {
      snprintf(path, sizeof(path), "d%u/new%u", mode, users[i]);
      if (unlink(path) < 0) rmdir(path);
    }
    snprintf(path, sizeof(path), "d%u", mode);
    SETUP(rmdir_emptied(path));
  }
  unlink("mine");
}

static void owner(void) {
  try_all(kUser, kUser, 0);
}
static void group(void) {
  try_all(kOtherUser, kGroup, 0);
}
static void further_group(void) {
  try_all(kOtherUser, kOtherUser, kGroup);
}
static void others(void) {
  try_all(kOtherUser, kOtherUser, 0);
}

static void run_case(void) {
  need_root();
  SETUP(chmod(".", 0777));
  static void (*const who[])(void) = {owner, group, further_group, others};
  static const int shifts[] = {6, 3, 3, 0};
  for (int i = 0; i < 4; i++) {
    make_all(shifts[i]);
    in_child(who[i]);
    clear_all();
  }
  // Where nobody else has any right, the owner has none by being of the group.
  make_all(3);
  in_child(owner);
}
