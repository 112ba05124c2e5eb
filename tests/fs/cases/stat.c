// SPDX-License-Identifier: GPL-2.0
// stat(): sizes, blocks, kinds, links of directories, and by path or descriptor alike.
#include "case.h"

static int same(const struct stat *a, const struct stat *b) {
  return a->st_dev == b->st_dev && a->st_ino == b->st_ino && a->st_mode == b->st_mode &&
         a->st_nlink == b->st_nlink && a->st_uid == b->st_uid && a->st_gid == b->st_gid &&
         a->st_rdev == b->st_rdev && a->st_size == b->st_size && a->st_blocks == b->st_blocks &&
         a->st_mtim.tv_sec == b->st_mtim.tv_sec && a->st_mtim.tv_nsec == b->st_mtim.tv_nsec &&
         a->st_ctim.tv_sec == b->st_ctim.tv_sec;
}

static void say_size(const struct stat *st) {
  // How many blocks a changed file has, an NFS client may learn later.
  const long long blocks = over_nfs() ? -1 : (long long)st->st_blocks;
  say("size %lld, blocks %lld", (long long)st->st_size, blocks);
}

static void run_case(void) {
  struct stat by_path, by_fd;
  static char data[50000];
  memset(data, 'x', sizeof(data));
  const int fd = FD(open("f", O_RDWR | O_CREAT, 0644));
  OP(write(fd, data, sizeof(data)));
  OP(fsync(fd));
  SETUP(stat("f", &by_path));
  SETUP(fstat(fd, &by_fd));
  OP(same(&by_path, &by_fd));
  say("size %lld, blocks %lld of 512 bytes, io block %ld", (long long)by_path.st_size,
      (long long)by_path.st_blocks, (long)by_path.st_blksize);
  OP(ftruncate(fd, 1 << 20));
  OP(fsync(fd));
  SETUP(fstat(fd, &by_fd));
  say_size(&by_fd);
  OP(ftruncate(fd, 0));
  SETUP(fstat(fd, &by_fd));
  say_size(&by_fd);

  SETUP(mkdir("d", 0755));
  for (int i = 0; i < 5; i++) {
    char path[16];
    snprintf(path, sizeof(path), "d/%d", i);
    SETUP(mkdir(path, 0755));
  }
  say_stat("d");
  OP(rmdir("d/3"));
  put("d/file", "x");
  say_stat("d");
  OP(rename("d/1", "d/2/1"));
  say_stat("d");
  say_stat("d/2");
  OP(rename("d/2/1", "d/0"));
  say_stat("d");
  say_stat("d/2");
  say_stat("d/0");
  const int dir = FD(open("d", O_RDONLY));
  say_fstat("d", dir);
  SETUP(stat("d", &by_path));
  SETUP(fstat(dir, &by_fd));
  OP(same(&by_path, &by_fd));
  SETUP(stat("d/..", &by_fd));
  SETUP(stat(".", &by_path));
  OP(same(&by_path, &by_fd));
  OP(stat("f", nowhere));
}
