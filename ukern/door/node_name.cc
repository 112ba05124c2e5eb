// SPDX-License-Identifier: GPL-2.0
// Calls on a directory's node and a name: lookup, creation, removal, rename.
#include <linux/errno.h>
#include <linux/fs.h>
#include <linux/kdev_t.h>
#include <linux/kernel.h>
#include <linux/limits.h>
#include <linux/string.h>
#include "ukern/door/node.h"

namespace {

// Checks the name and gets the directory's path (node_hold).
int begin(struct uk_node *dir, const char *name, struct walk_path *path) {
  const int error = node_check_name(name);
  if (!error) node_hold(dir, path);
  return error;
}

// Ends a call on `name`: gets its node and attributes unless the call failed, and drops the
// directory.
int finish(struct walk_path *path, int error, const char *name, struct uk_node **out,
           struct uk_stat *stat) {
  if (!error) error = node_result(path, name, out, stat);
  dput(path->dentry);
  return error;
}

}  // namespace

extern "C" {

int uk_node_at(const char *name, struct uk_node **out) {
  struct nameidata nd;
  int error = path_lookup(name, LOOKUP_FOLLOW, &nd);
  if (error) return error;
  error = node_get(nd.mnt, nd.dentry, out);
  path_release(&nd);
  return error;
}

void uk_request_continues(int yes) {
  current->request.continues = yes;
}

int uk_lookup(struct uk_node *dir, const char *name, struct uk_node **out, struct uk_stat *stat) {
  const host_request_scope request(REQUEST_LOOKUP);
  struct walk_path path;
  const int error = begin(dir, name, &path);
  return error ? error : finish(&path, 0, name, out, stat);
}

int uk_mknod(struct uk_node *dir, const char *name, unsigned mode, unsigned rdev,
             struct uk_node **out, struct uk_stat *stat) {
  const host_request_scope request;
  struct walk_path path;
  const int error = begin(dir, name, &path);
  if (error) return error;
  return finish(&path, mknod_at(&path, name, static_cast<int>(mode), new_decode_dev(rdev)), name,
                out, stat);
}

int uk_mkdir(struct uk_node *dir, const char *name, unsigned mode, struct uk_node **out,
             struct uk_stat *stat) {
  const host_request_scope request;
  struct walk_path path;
  const int error = begin(dir, name, &path);
  return error ? error
               : finish(&path, mkdir_at(&path, name, static_cast<int>(mode)), name, out, stat);
}

int uk_symlink(struct uk_node *dir, const char *name, const char *target, struct uk_node **out,
               struct uk_stat *stat) {
  const host_request_scope request;
  struct walk_path path;
  if (strlen(target) >= PATH_MAX) return -ENAMETOOLONG;
  const int error = begin(dir, name, &path);
  return error ? error : finish(&path, symlink_at(target, &path, name), name, out, stat);
}

int uk_link(struct uk_node *node, struct uk_node *dir, const char *name, struct uk_node **out,
            struct uk_stat *stat) {
  const host_request_scope request;
  struct walk_path path, old;
  int error = begin(dir, name, &path);
  if (error) return error;
  error = node_walk(node, &old);
  if (!error) {
    error = link_at(&old, &path, name);
    dput(old.dentry);
    if (!error) node_keep_name(node);
  }
  return finish(&path, error, name, out, stat);
}

int uk_unlink(struct uk_node *dir, const char *name) {
  const host_request_scope request;
  struct walk_path path;
  int error = begin(dir, name, &path);
  if (error) return error;
  error = unlink_at(&path, name);
  dput(path.dentry);
  return error;
}

int uk_rmdir(struct uk_node *dir, const char *name) {
  const host_request_scope request;
  struct walk_path path;
  int error = begin(dir, name, &path);
  if (error) return error;
  error = rmdir_at(&path, name);
  dput(path.dentry);
  return error;
}

int uk_rename(struct uk_node *old_dir, const char *old_name, struct uk_node *new_dir,
              const char *new_name) {
  const host_request_scope request;
  struct walk_path from, to;
  int error = node_check_name(new_name);
  if (!error) error = begin(old_dir, old_name, &from);
  if (error) return error;
  node_hold(new_dir, &to);
  error = rename_at(&from, old_name, &to, new_name);
  dput(to.dentry);
  dput(from.dentry);
  return error;
}

}  // extern "C"
