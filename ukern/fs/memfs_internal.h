/* SPDX-License-Identifier: GPL-2.0 */
/*
 * memfs: a file system whose disk is memory. A node is what an inode would be on a disk: it lives
 * as long as the file, while the inode in front of it comes and goes with the inode cache; the
 * file's data lies in blocks of its own behind the page cache, so that reading, write-back, reclaim
 * and direct I/O do what they do over a real disk.
 *
 * Attributes of a node whose inode is in memory are those of the inode; write_inode brings them to
 * the node.
 *
 * Locks: the i_mutex of a directory covers which names it has; memfs_sb.lock (a spin lock,
 * innermost) the tables in which nodes and names are found, every node's block index and extended
 * attributes, the queue of requests, and the counts.
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
  ukern_field<umode_t> mode; /* the inode's, when it was last written */
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
  unsigned long used, capacity; /* blocks; no capacity: no limit */
  unsigned switches;
  int revalidate;
  struct list_head queued;       /* requests of direct_IO, in order; under lock */
  wait_queue_head_t queued_wait; /* woken for each that is queued */
  struct memfs_failure failures[MEMFS_OPS];
  struct backing_dev_info bdi;
};

static inline struct memfs_sb *memfs_s(struct super_block *sb) {
  return (struct memfs_sb *)sb->s_fs_info;
}
static inline struct memfs_node *memfs_n(struct inode *inode) {
  return (struct memfs_node *)inode->u.generic_ip;
}

/* Counts a call of an operation: 0, or the error that a test wants of it. */
int memfs_check(struct super_block *sb, enum memfs_op op);

/* memfs_node.cc */
/* A node without a name, owned by the caller until a name or an inode refers to it. NULL without
 * memory. */
struct memfs_node *memfs_new_node(struct super_block *sb, umode_t mode, dev_t rdev);
/* Frees a node and all it holds. */
void memfs_free_node(struct super_block *sb, struct memfs_node *node);
/* Its inode, with a reference. ERR_PTR(-ENOMEM). */
struct inode *memfs_iget(struct super_block *sb, struct memfs_node *node);
/* Sets the inode's operations as the switches want them. */
void memfs_set_operations(struct inode *inode);
int memfs_write_inode(struct inode *inode, int sync);
/*
 * The block at an index with a reference for the caller (put_page); with `make`, made and counted
 * when there is none: ERR_PTR(-ENOSPC), ERR_PTR(-ENOMEM). Else NULL.
 */
struct page *memfs_block(struct inode *inode, unsigned long index, int make);
void memfs_truncate(struct inode *inode);
void memfs_touch(struct inode *inode); /* mtime and ctime are now */

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
/* Tables, [0] with and [1] without what a switch takes away. */
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
