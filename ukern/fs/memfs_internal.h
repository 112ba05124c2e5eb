/* SPDX-License-Identifier: GPL-2.0 */
/*
 * memfs: a file system whose disk is memory. A node is the on-disk inode: it lives as long as the
 * file, while the inode in memory comes and goes with the inode cache. File data is in blocks
 * behind the page cache, so that reading, write-back, reclaim and direct I/O work as over a real
 * disk.
 *
 * While a node's inode is in memory, the inode has the current attributes; write_inode copies them
 * to the node.
 *
 * Locks: a directory's i_mutex covers its names. memfs_sb.lock (a spin lock, innermost) covers the
 * tables of nodes and names, every node's block index and extended attributes, the request queue,
 * and the counts.
 */
#ifndef UKERN_FS_MEMFS_INTERNAL_H
#define UKERN_FS_MEMFS_INTERNAL_H

#include <linux/backing-dev.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/list.h>
#include <linux/pagemap.h>
#include <linux/radix-tree.h>
#include <linux/sched.h>
#include <linux/spinlock.h>
#include <linux/wait.h>

#include "ukern/fs/memfs.h"

#ifdef __cplusplus
extern "C" {
#endif

#define MEMFS_HASH_BITS 12

struct memfs_node {
  struct list_head all; /* in memfs_sb.nodes */
  unsigned long ino;
  ukern_field<umode_t> mode; /* the inode's, at the last write_inode */
  unsigned nlink;
  uid_t uid;
  gid_t gid;
  dev_t rdev;
  loff_t size;
  struct timespec atime, mtime, ctime;
  struct memfs_node *parent;     /* of a directory; under memfs_sb.lock */
  struct list_head entries;      /* of a directory, by memfs_entry.in_dir, in order of position */
  loff_t next_position;          /* of a directory */
  char *target;                  /* of a symbolic link */
  struct radix_tree_root blocks; /* of a regular file: index to struct page */
  unsigned long nr_blocks;
  struct list_head xattrs;
};

struct memfs_entry {
  struct hlist_node by_name; /* in memfs_sb.names */
  struct list_head in_dir;
  struct memfs_node *dir;
  struct memfs_node *node;
  loff_t position; /* for readdir: never reused in one directory */
  unsigned length;
  char name[];
};

struct memfs_failure {
  int error, times;
  unsigned long calls;
};

struct memfs_sb {
  spinlock_t lock;
  struct list_head nodes;
  struct hlist_head names[1u << MEMFS_HASH_BITS];
  unsigned long next_ino;
  unsigned long nr_nodes;
  unsigned long used, capacity; /* blocks; capacity 0: no limit */
  unsigned switches;
  int revalidate;
  struct list_head queued;       /* requests of direct_IO, in order; under lock */
  wait_queue_head_t queued_wait; /* woken for each queued request */
  struct memfs_failure failures[MEMFS_OPS];
  struct backing_dev_info bdi;
};

static inline struct memfs_sb *memfs_s(struct super_block *sb) {
  return (struct memfs_sb *)sb->s_fs_info;
}
static inline struct memfs_node *memfs_n(struct inode *inode) {
  return (struct memfs_node *)inode->u.generic_ip;
}

/* Counts a call of an operation. 0, or the injected error. */
int memfs_check(struct super_block *sb, enum memfs_op op);

/* memfs_node.cc */
/* A node without a name, owned by the caller until a name or an inode refers to it. NULL without
 * memory. */
struct memfs_node *memfs_new_node(struct super_block *sb, umode_t mode, dev_t rdev);
/* Frees a node with its blocks, extended attributes and link target. */
void memfs_free_node(struct super_block *sb, struct memfs_node *node);
/* The node's inode, with a reference. ERR_PTR(-ENOMEM). */
struct inode *memfs_iget(struct super_block *sb, struct memfs_node *node);
/* Sets the inode's operations according to the switches. */
void memfs_set_operations(struct inode *inode);
int memfs_write_inode(struct inode *inode, int sync);
/*
 * Gets the block at an index, with a reference for the caller (put_page). If there is none: NULL,
 * or with `make` a new block, charged to the capacity, or ERR_PTR(-ENOSPC), ERR_PTR(-ENOMEM).
 */
struct page *memfs_block(struct inode *inode, unsigned long index, int make);
void memfs_truncate(struct inode *inode);
void memfs_touch(struct inode *inode); /* sets mtime and ctime to now */

/* memfs_xattr.cc */
void memfs_free_xattrs(struct memfs_node *node);
int memfs_setxattr(struct dentry *dentry, const char *name, const void *value, size_t size,
                   int flags);
ssize_t memfs_getxattr(struct dentry *dentry, const char *name, void *value, size_t size);
ssize_t memfs_listxattr(struct dentry *dentry, char *list, size_t size);
int memfs_removexattr(struct dentry *dentry, const char *name);

/* memfs_dir.cc, memfs_file.cc */
int memfs_getattr(struct vfsmount *mnt, struct dentry *dentry, struct kstat *stat);
int memfs_setattr(struct dentry *dentry, struct iattr *attr);
int memfs_open(struct inode *inode, struct file *file);
int memfs_fsync(struct file *file, struct dentry *dentry, int datasync);
/* Tables: [0] with and [1] without the operations that the switch removes. */
extern struct inode_operations memfs_file_iops[2];          /* MEMFS_NO_XATTR */
extern struct inode_operations memfs_dir_iops[2];           /* MEMFS_NO_XATTR */
extern struct inode_operations memfs_symlink_iops[2];       /* MEMFS_NO_XATTR */
extern const struct file_operations memfs_file_fops[2];     /* MEMFS_NO_FSYNC */
extern const struct file_operations memfs_dir_fops[2];      /* MEMFS_NO_FSYNC */
extern const struct address_space_operations memfs_aops[2]; /* MEMFS_NO_DIRECT */

#ifdef __cplusplus
}
#endif
#endif
