/* SPDX-License-Identifier: GPL-2.0 */
/* Plain data that both the program that hosts the kernel and the host's file system (host_fs.h)
 * speak of: times, attributes, the figures of a file system. */
#ifndef UKERN_DOOR_UK_TYPES_H
#define UKERN_DOOR_UK_TYPES_H

struct uk_time {
  long long sec;
  unsigned nsec;
};

struct uk_stat {
  unsigned long long dev, ino, size, blocks; /* blocks of 512 bytes */
  unsigned long long rdev;                   /* as the kernel's new_encode_dev, as is dev */
  unsigned long long mount; /* the host's mount through which it was reached; 0: not known */
  unsigned mode, nlink, uid, gid, blksize;
  struct uk_time atime, mtime, ctime;
};

struct uk_statfs {
  unsigned long long blocks, bfree, bavail, files, ffree, fsid;
  long type, bsize, namelen, frsize;
};

#endif
