/* SPDX-License-Identifier: GPL-2.0 */
/* The kernel's own objects behind a path, which a case looks at or calls without a program. */
#ifndef TESTS_MODULE_KIT_VFS_H
#define TESTS_MODULE_KIT_VFS_H

#include "kernel.h"
#include "tarn.h"
#include "tests/module/kit/paths.h"

/* The dentry and mount at a path. */
class test_walk {
 public:
  explicit test_walk(const char *path, unsigned flags = 0) {
    memset(&nd_, 0, sizeof(nd_));
    error_ = path_lookup(path, flags, &nd_);
  }
  ~test_walk() { drop(); }
  test_walk(const test_walk &) = delete;
  test_walk &operator=(const test_walk &) = delete;
  void drop() {
    if (!error_) path_release(&nd_);
    error_ = -ENOENT;
  }
  int error() const { return error_; }
  struct dentry *dentry() const {
    return nd_.dentry;
  }
  struct inode *inode() const {
    return nd_.dentry->d_inode;
  }
  struct vfsmount *mnt() const {
    return nd_.mnt;
  }

 private:
  struct nameidata nd_;
  int error_;
};

inline struct qstr test_qstr(const char *name) {
  struct qstr text;
  text.name = reinterpret_cast<const unsigned char *>(name);
  text.len = static_cast<unsigned>(strlen(name));
  text.hash = full_name_hash(text.name, text.len);
  return text;
}

/* The cached dentry of a name, with a reference; null when there is none. */
inline struct dentry *test_cached(const char *dir, const char *name) {
  const test_walk walk(dir);
  if (walk.error()) return nullptr;
  struct qstr text = test_qstr(name);
  return d_lookup(walk.dentry(), &text);
}

/*
 * A file of the root file system under the layer: `get()` is an upper dentry that is bound to it,
 * as far as capture looks. Made if there is none of the name.
 */
class bound_dentry {
 public:
  explicit bound_dentry(const char *path) : made_(test_mknod(path, 0100644, 0)), lower_(path) {
    memset(&dentry_, 0, sizeof(dentry_));
    memset(&info_, 0, sizeof(info_));
    if (error()) return;
    info_.lower_path.dentry = lower_.dentry();
    info_.lower_path.mnt = lower_.mnt();
    dentry_.d_op = &tarn_dops;
    dentry_.d_fsdata = &info_;
  }
  bound_dentry(const bound_dentry &) = delete;
  bound_dentry &operator=(const bound_dentry &) = delete;

  int error() const { return made_ && made_ != -EEXIST ? made_ : lower_.error(); }
  struct dentry *get() {
    return &dentry_;
  }

 private:
  int made_;
  const test_walk lower_;
  struct dentry dentry_;
  struct tarn_dentry_info info_;
};

/* How many slots of an operation table are filled. */
template <typename Table>
int test_filled_slots(const Table &table) {
  const auto *slots = reinterpret_cast<const void *const *>(&table);
  int filled = 0;
  for (unsigned long i = 0; i < sizeof(Table) / sizeof(*slots); i++) filled += slots[i] != nullptr;
  return filled;
}

#endif
