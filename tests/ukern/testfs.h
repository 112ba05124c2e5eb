/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The smallest file system that cases of the dentry and inode caches need: a root directory, made
 * by get_sb_nodev, in which nothing exists until a case puts it there. It counts what it is called
 * for.
 *
 * A case has one testfs; its mounts are attached nowhere. unmount() in the end, or the end of the
 * case, drops the mount and takes the type out of the list.
 */
#ifndef TESTS_UKERN_TESTFS_H
#define TESTS_UKERN_TESTFS_H

#include "module/kernel.h"

#include "tests/harness/case.h"

class testfs;
/* The way of the operations to the one that a case has. */
inline testfs *the_testfs; /* one for all files of cases, as the class is */

class testfs {
 public:
  struct counts {
    int released; /* d_release */
    int iputs;    /* d_iput */
    int deletes;  /* d_delete */
    int cleared;  /* clear_inode */
    int deleted;  /* delete_inode */
    int written;  /* write_inode */
    int put_supers;
    int killed; /* kill_sb */
  };

  /* With keep_inodes 0, an inode goes with its last reference; else it stays while it has links. */
  explicit testfs(int keep_inodes = 1) {
    the_testfs = this;
    n = {};
    super_ops = {};
    super_ops.clear_inode = count_clear;
    super_ops.delete_inode = count_delete;
    super_ops.write_inode = count_write;
    super_ops.put_super = count_put_super;
    super_ops.drop_inode = keep_inodes ? generic_drop_inode : generic_delete_inode;
    dentry_ops = {};
    dentry_ops.d_release = count_release;
    dentry_ops.d_iput = count_iput;
    type = {};
    type.name = "testfs";
    type.get_sb = get_sb;
    type.kill_sb = count_kill;
    type.owner = THIS_MODULE;
    EXPECT_EQ(register_filesystem(&type), 0);
    mnt = kern_mount(&type);
    EXPECT_FALSE(IS_ERR(mnt));
    if (IS_ERR(mnt)) mnt = NULL;
  }

  ~testfs() {
    unmount();
    EXPECT_EQ(unregister_filesystem(&type), 0);
    the_testfs = NULL;
  }
  testfs(const testfs &) = delete;
  testfs &operator=(const testfs &) = delete;

  void unmount() {
    if (mnt) mntput(mnt);
    mnt = NULL;
  }

  struct super_block *sb() {
    return mnt->mnt_sb;
  }
  struct dentry *root() {
    return mnt->mnt_root;
  }

  struct inode *inode(int mode) {
    struct inode *inode = new_inode(sb());
    if (inode) inode->i_mode = (umode_t)mode;
    return inode;
  }

  static struct qstr name(const char *text) {
    struct qstr q = {};
    q.name = (const unsigned char *)text;
    q.len = (unsigned)strlen(text);
    q.hash = full_name_hash(q.name, q.len);
    return q;
  }

  /* A dentry with the file system's operations, neither hashed nor positive. */
  struct dentry *alloc(struct dentry *parent, const char *text) {
    struct qstr q = name(text);
    struct dentry *dentry = d_alloc(parent, &q);
    if (dentry) dentry->d_op = &dentry_ops;
    return dentry;
  }

  /* A hashed dentry with a new inode of that mode; mode 0: a negative one. */
  struct dentry *add(struct dentry *parent, const char *text, int mode) {
    struct dentry *dentry = alloc(parent, text);
    if (dentry) d_add(dentry, mode ? inode(mode) : NULL);
    return dentry;
  }

  static struct dentry *lookup(struct dentry *parent, const char *text) {
    struct qstr q = name(text);
    return d_lookup(parent, &q);
  }

  /* A count that another thread may be changing. */
  static int seen(const int *count) { return __atomic_load_n(count, __ATOMIC_RELAXED); }

  static inline struct file_system_type type; /* lock classes are static */
  struct super_operations super_ops;
  struct dentry_operations dentry_ops;
  struct vfsmount *mnt;
  counts n;
  int fill_error = 0;

 private:
  static void count(int *what) { __atomic_fetch_add(what, 1, __ATOMIC_RELAXED); }

  static int fill(struct super_block *sb, void *, int) {
    sb->s_op = &the_testfs->super_ops;
    sb->s_blocksize = 4096;
    sb->s_blocksize_bits = 12;
    sb->s_magic = 0x74657374;
    sb->s_time_gran = 1;
    if (the_testfs->fill_error) return the_testfs->fill_error;
    struct inode *inode = new_inode(sb);
    if (!inode) return -ENOMEM;
    inode->i_mode = S_IFDIR | 0755;
    sb->s_root = d_alloc_root(inode);
    if (!sb->s_root) iput(inode);
    return sb->s_root ? 0 : -ENOMEM;
  }
  static int get_sb(struct file_system_type *type, int flags, const char *, void *data,
                    struct vfsmount *mnt) {
    return get_sb_nodev(type, flags, data, fill, mnt);
  }
  static void count_release(struct dentry *) { count(&the_testfs->n.released); }
  static void count_iput(struct dentry *, struct inode *inode) {
    count(&the_testfs->n.iputs);
    iput(inode);
  }
  static void count_clear(struct inode *) { count(&the_testfs->n.cleared); }
  static void count_delete(struct inode *inode) {
    count(&the_testfs->n.deleted);
    truncate_inode_pages(&inode->i_data, 0);
    clear_inode(inode);
  }
  static int count_write(struct inode *, int) {
    count(&the_testfs->n.written);
    return 0;
  }
  static void count_put_super(struct super_block *) { count(&the_testfs->n.put_supers); }
  static void count_kill(struct super_block *sb) {
    count(&the_testfs->n.killed);
    kill_anon_super(sb);
  }
};

#endif
