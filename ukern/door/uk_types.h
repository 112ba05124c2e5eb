/* SPDX-License-Identifier: GPL-2.0 */
/* Plain data types of the interfaces to the hosting program and to the host's file system
 * (host_fs.h): times, attributes, file-system statistics. */
#ifndef UKERN_DOOR_UK_TYPES_H
#define UKERN_DOOR_UK_TYPES_H

struct uk_time {
  long long sec;
  unsigned nsec;
};

struct uk_stat {
  unsigned long long dev, ino, size, blocks; /* blocks of 512 bytes */
  unsigned long long rdev;                   /* encoded by new_encode_dev, like dev */
  unsigned long long mount; /* id of the host mount through which it was reached; 0: unknown */
  unsigned mode, nlink, uid, gid, blksize;
  struct uk_time atime, mtime, ctime;
};

struct uk_statfs {
  unsigned long long blocks, bfree, bavail, files, ffree, fsid;
  long type, bsize, namelen, frsize;
};

#endif
