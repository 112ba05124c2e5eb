/* SPDX-License-Identifier: GPL-2.0 */
/* Filled in by the super operation statfs. Counts are in units of f_bsize. */
#ifndef UKERN_LINUX_STATFS_H
#define UKERN_LINUX_STATFS_H

#include <linux/types.h>

struct kstatfs {
  long f_type;
  long f_bsize;
  u64 f_blocks;
  u64 f_bfree;
  u64 f_bavail;
  u64 f_files;
  u64 f_ffree;
  __kernel_fsid_t f_fsid;
  long f_namelen;
  long f_frsize;
  long f_spare[5];
};

#endif
