// SPDX-License-Identifier: GPL-2.0
// statfs() and fstatfs(): the figures of the file system, before and after it is used.
#include "case.h"
#include <sys/statfs.h>
#include <sys/statvfs.h>

static void run_case(void) {
  struct statfs fs, by_fd;
  struct statvfs figures;
  OP(statfs(".", &fs));
  say("block size %ld, names up to %ld", (long)fs.f_bsize, (long)fs.f_namelen);
  say("blocks %llu, files %llu", (unsigned long long)fs.f_blocks, (unsigned long long)fs.f_files);
  say("free at most what there is: %d",
      fs.f_bfree <= fs.f_blocks && fs.f_bavail <= fs.f_bfree && fs.f_ffree <= fs.f_files);
  OP(statfs("missing", &fs));
  const int fd = FD(open("f", O_RDWR | O_CREAT, 0644));
  OP(fstatfs(fd, &by_fd));
  say("the same blocks by descriptor: %d", by_fd.f_blocks == fs.f_blocks);
  OP(statvfs("f", &figures));
  say("fragment size %lu, names up to %lu", figures.f_frsize, figures.f_namemax);
  static char data[1 << 20];
  memset(data, 'x', sizeof(data));
  OP(write(fd, data, sizeof(data)));
  OP(fsync(fd));
  struct statfs after;
  OP(statfs(".", &after));
  const long long used = ((long long)fs.f_bfree - (long long)after.f_bfree) * fs.f_bsize;
  say("1 MiB takes that much: %d", used >= (1 << 20) && used < (1 << 20) + 65536);
  OP(fstatfs(-1, &fs));
}
