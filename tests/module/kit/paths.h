/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What a program does by path. The calls act as the current task and return 0 or -errno; owners
 * give back what they hold at the end of their scope.
 */
#ifndef TESTS_MODULE_KIT_PATHS_H
#define TESTS_MODULE_KIT_PATHS_H

#include "kernel.h"
#include "ox_msg.h"
#include "ukern/door/uk_fs.h"

/* The directory part and the last component of an absolute path. */
struct test_path {
  char dir[OX_PATH_MAX];
  const char *name;

  explicit test_path(const char *path) {
    const char *slash = strrchr(path, '/');
    const size_t length = slash == path ? 1 : static_cast<size_t>(slash - path);
    memcpy(dir, path, length);
    dir[length] = 0;
    name = slash + 1;
  }
};

/* A node by path, links followed; empty when there is none. */
class test_node {
 public:
  explicit test_node(const char *path) { error_ = uk_node_at(path, &node_); }
  ~test_node() {
    if (node_) uk_node_put(node_, 1);
  }
  test_node(const test_node &) = delete;
  test_node &operator=(const test_node &) = delete;
  struct uk_node *get() const {
    return node_;
  }
  int error() const { return error_; }

 private:
  struct uk_node *node_ = nullptr;
  int error_;
};

/* The node of a name itself, a link not followed. */
class test_name {
 public:
  explicit test_name(const char *path) {
    const test_path at(path);
    const test_node dir(at.dir);
    error_ = dir.get() ? uk_lookup(dir.get(), at.name, &node_, &stat_) : dir.error();
  }
  ~test_name() {
    if (node_) uk_node_put(node_, 1);
  }
  test_name(const test_name &) = delete;
  test_name &operator=(const test_name &) = delete;
  struct uk_node *get() const {
    return node_;
  }
  const struct uk_stat &stat() const { return stat_; }
  int error() const { return error_; }

 private:
  struct uk_node *node_ = nullptr;
  struct uk_stat stat_ = {};
  int error_;
};

/* Calls `make(dir, name, node, stat)` in the directory that the path names. */
template <typename Make>
int test_make(const char *path, Make make) {
  const test_path at(path);
  const test_node dir(at.dir);
  if (!dir.get()) return dir.error();
  struct uk_node *node = nullptr;
  struct uk_stat stat;
  const int rc = make(dir.get(), at.name, &node, &stat);
  if (!rc) uk_node_put(node, 1);
  return rc;
}

inline int test_mkdir(const char *path, unsigned mode = 0755) {
  return test_make(path, [=](uk_node *dir, const char *name, uk_node **node, uk_stat *stat) {
    return uk_mkdir(dir, name, mode, node, stat);
  });
}

inline int test_mknod(const char *path, unsigned mode, unsigned rdev) {
  return test_make(path, [=](uk_node *dir, const char *name, uk_node **node, uk_stat *stat) {
    return uk_mknod(dir, name, mode, rdev, node, stat);
  });
}

inline int test_symlink(const char *target, const char *path) {
  return test_make(path, [=](uk_node *dir, const char *name, uk_node **node, uk_stat *stat) {
    return uk_symlink(dir, name, target, node, stat);
  });
}

inline int test_link(const char *from, const char *to) {
  const test_node old(from);
  if (!old.get()) return old.error();
  return test_make(to, [&](uk_node *dir, const char *name, uk_node **node, uk_stat *stat) {
    return uk_link(old.get(), dir, name, node, stat);
  });
}

inline int test_unlink(const char *path) {
  const test_path at(path);
  const test_node dir(at.dir);
  return dir.get() ? uk_unlink(dir.get(), at.name) : dir.error();
}

inline int test_rmdir(const char *path) {
  const test_path at(path);
  const test_node dir(at.dir);
  return dir.get() ? uk_rmdir(dir.get(), at.name) : dir.error();
}

inline int test_rename(const char *from, const char *to) {
  const test_path old_at(from);
  const test_path new_at(to);
  const test_node old_dir(old_at.dir);
  const test_node new_dir(new_at.dir);
  if (!old_dir.get()) return old_dir.error();
  if (!new_dir.get()) return new_dir.error();
  return uk_rename(old_dir.get(), old_at.name, new_dir.get(), new_at.name);
}

inline int test_chmod(const char *path, unsigned mode) {
  const test_node node(path);
  if (!node.get()) return node.error();
  struct uk_stat want = {}, after = {};
  want.mode = mode;
  return uk_setattr(node.get(), nullptr, UK_SET_MODE, &want, &after);
}

inline int test_stat(const char *path, struct uk_stat *stat) {
  const test_name at(path);
  if (!at.get()) return at.error();
  return uk_getattr(at.get(), nullptr, stat);
}

inline bool test_exists(const char *path) {
  return test_name(path).error() == 0;
}

#endif
