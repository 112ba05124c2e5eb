// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/translate.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include "tarnd/fuse/fuse_api.h"

namespace tarnd {

static timespec to_timespec(const uk_time &from) {
  timespec to{};
  to.tv_sec = from.sec;
  to.tv_nsec = from.nsec;
  return to;
}

static uk_time to_uk_time(const timespec &from) {
  uk_time to{};
  to.sec = from.tv_sec;
  to.nsec = static_cast<unsigned>(from.tv_nsec);
  return to;
}

struct stat to_stat(const uk_stat &from) {
  struct stat to {};
  to.st_dev = from.dev;
  to.st_ino = from.ino;
  to.st_mode = from.mode;
  to.st_nlink = from.nlink;
  to.st_uid = from.uid;
  to.st_gid = from.gid;
  to.st_rdev = from.rdev;  // FUSE uses the encoding of new_encode_dev()
  to.st_size = static_cast<off_t>(from.size);
  to.st_blksize = from.blksize;
  to.st_blocks = static_cast<blkcnt_t>(from.blocks);
  to.st_atim = to_timespec(from.atime);
  to.st_mtim = to_timespec(from.mtime);
  to.st_ctim = to_timespec(from.ctime);
  return to;
}

uk_stat to_uk_stat(const struct stat &from) {
  uk_stat to{};
  to.mode = from.st_mode;
  to.uid = from.st_uid;
  to.gid = from.st_gid;
  to.size = static_cast<unsigned long long>(from.st_size);
  to.atime = to_uk_time(from.st_atim);
  to.mtime = to_uk_time(from.st_mtim);
  return to;
}

struct statvfs to_statvfs(const struct uk_statfs &from) {
  struct statvfs to {};
  to.f_bsize = from.bsize;
  to.f_frsize = from.frsize ? from.frsize : from.bsize;
  to.f_blocks = from.blocks;
  to.f_bfree = from.bfree;
  to.f_bavail = from.bavail;
  to.f_files = from.files;
  to.f_ffree = from.ffree;
  to.f_favail = from.ffree;
  to.f_namemax = from.namelen;
  return to;
}

unsigned to_uk_set(int to_set) {
  unsigned set = 0;
  if (to_set & FUSE_SET_ATTR_MODE) set |= UK_SET_MODE;
  if (to_set & FUSE_SET_ATTR_UID) set |= UK_SET_UID;
  if (to_set & FUSE_SET_ATTR_GID) set |= UK_SET_GID;
  if (to_set & FUSE_SET_ATTR_SIZE) set |= UK_SET_SIZE;
  if (to_set & FUSE_SET_ATTR_ATIME_NOW) {
    set |= UK_SET_ATIME_NOW;
  } else if (to_set & FUSE_SET_ATTR_ATIME) {
    set |= UK_SET_ATIME;
  }
  if (to_set & FUSE_SET_ATTR_MTIME_NOW) {
    set |= UK_SET_MTIME_NOW;
  } else if (to_set & FUSE_SET_ATTR_MTIME) {
    set |= UK_SET_MTIME;
  }
  return set;
}

int to_create_flags(int flags) {
  // The same on every machine. O_LARGEFILE is not: the host's kernel adds its own, which is
  // another flag elsewhere and has no name in a program.
  constexpr int kKept = O_ACCMODE | O_CREAT | O_EXCL | O_TRUNC | O_APPEND | O_NONBLOCK | O_DSYNC |
                        O_ASYNC | O_NOATIME | UK_OPEN_TO_RUN;
  int kernel = flags & kKept;
  if (flags & O_DIRECT) kernel |= UK_O_DIRECT;
  if (flags & O_DIRECTORY) kernel |= UK_O_DIRECTORY;
  if (flags & O_NOFOLLOW) kernel |= UK_O_NOFOLLOW;
  return kernel;
}

int to_open_flags(int flags) {
  return to_create_flags(flags) & ~(O_CREAT | O_EXCL);
}

mode_t to_entry_mode(unsigned type) {
  return DTTOIF(type);
}

}  // namespace tarnd
