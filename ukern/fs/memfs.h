/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Test controls of memfs: missing operations, injected errors, capacity. Each call acts on one
 * super block, at any time, from any task. The switches are also mount options, separated by
 * commas: noxattr, nofsync, nodirect, revalidate, nfs, queue, short, size=BYTES (with k, m or g).
 */
#ifndef UKERN_FS_MEMFS_H
#define UKERN_FS_MEMFS_H

#ifdef __cplusplus
extern "C" {
#endif

struct super_block;

enum memfs_switch {
  MEMFS_NO_XATTR = 1,  /* no operation for extended attributes */
  MEMFS_NO_FSYNC = 2,  /* no fsync */
  MEMFS_NO_DIRECT = 4, /* no direct_IO */
  MEMFS_REVALIDATE =
      8,          /* dentries looked up from now on have a d_revalidate, see memfs_set_revalidate */
  MEMFS_NFS = 16, /* NFS's magic number; an open directory has its read position besides f_pos, and
                     llseek resets it */
  MEMFS_QUEUE = 32,        /* direct_IO moves the data and queues the request: see memfs_complete */
  MEMFS_SHORT_DIRECT = 64, /* direct_IO moves only the first 512 bytes */
};
/* Replaces all switches. */
void memfs_set_switches(struct super_block *sb, unsigned switches);
/* Sets the result of d_revalidate; initially 1. */
void memfs_set_revalidate(struct super_block *sb, int result);
/* Completes the oldest queued request; sleeps until there is one. */
void memfs_complete(struct super_block *sb);
/* Sets the capacity in bytes of file data; 0: no limit. Existing data stays. */
void memfs_set_capacity(struct super_block *sb, unsigned long long bytes);

enum memfs_op {
  MEMFS_OP_LOOKUP,
  MEMFS_OP_CREATE,
  MEMFS_OP_MKDIR,
  MEMFS_OP_MKNOD,
  MEMFS_OP_SYMLINK,
  MEMFS_OP_LINK,
  MEMFS_OP_UNLINK,
  MEMFS_OP_RMDIR,
  MEMFS_OP_RENAME,
  MEMFS_OP_READLINK,
  MEMFS_OP_SETATTR,
  MEMFS_OP_GETATTR,
  MEMFS_OP_STATFS,
  MEMFS_OP_READDIR,
  MEMFS_OP_OPEN,
  MEMFS_OP_FSYNC,
  MEMFS_OP_READPAGE,
  MEMFS_OP_PREPARE_WRITE,
  MEMFS_OP_COMMIT_WRITE,
  MEMFS_OP_WRITEPAGE,
  MEMFS_OP_DIRECT_IO,
  MEMFS_OP_SETXATTR,
  MEMFS_OP_GETXATTR,
  MEMFS_OP_LISTXATTR,
  MEMFS_OP_REMOVEXATTR,
  MEMFS_OPS
};
/* The next `times` calls of an operation fail with `error` (negative); times < 0: all, 0: none. */
void memfs_fail(struct super_block *sb, enum memfs_op op, int error, int times);
/* How often an operation has been called since the mount. */
unsigned long memfs_calls(struct super_block *sb, enum memfs_op op);

#ifdef __cplusplus
}
#endif
#endif
