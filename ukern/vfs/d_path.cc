// SPDX-License-Identifier: GPL-2.0
// Builds the path of a dentry and mount, from its end.

#include "ukern/vfs/mount_internal.h"

#include <linux/sched.h>
#include <linux/string.h>

#include "ukern/sync/guard.h"

// A buffer that is filled from its end towards its start.
struct backward_text {
  char *at;
  int left;

  bool put(const unsigned char *text, int len) {
    left -= len;
    if (left < 0) return false;
    at -= len;
    memcpy(at, text, static_cast<size_t>(len));
    return true;
  }
  bool put(const char *text) {
    return put(reinterpret_cast<const unsigned char *>(text), static_cast<int>(strlen(text)));
  }
};

// Steps from the root of a mount to its mount point; false at the topmost mount.
static bool cross_mount(struct dentry **dentry, struct vfsmount **mnt) {
  bool crossed = false;
  SpinGuard guard(vfsmount_lock);
  if ((*mnt)->mnt_parent != *mnt) {
    *dentry = (*mnt)->mnt_mountpoint;
    *mnt = (*mnt)->mnt_parent;
    crossed = true;
  }
  return crossed;
}

// dcache_lock is held. With a null `root` the path goes up to the topmost root.
static char *path_locked(struct dentry *dentry, struct vfsmount *mnt, struct dentry *root,
                         struct vfsmount *rootmnt, char *buf, int buflen) {
  char *const too_long = static_cast<char *>(ERR_PTR(-ENAMETOOLONG));
  struct backward_text text = {.at = buf + buflen, .left = buflen};
  bool empty = true;

  if (!text.put(reinterpret_cast<const unsigned char *>(""), 1)) return too_long;
  if (!IS_ROOT(dentry) && d_unhashed(dentry) && !text.put(" (deleted)")) return too_long;
  if (text.left < 1) return too_long;

  while (dentry != root || mnt != rootmnt) {
    if (dentry == mnt->mnt_root || IS_ROOT(dentry)) {
      if (cross_mount(&dentry, &mnt)) continue;
      // The name of the topmost root, usually "/", replaces the leading slash, but needs room
      // beside it.
      const struct qstr *name = &dentry->d_name;
      if (!text.put(name->name, static_cast<int>(name->len))) return too_long;
      if (empty) return text.at;
      memmove(text.at + 1, text.at, name->len);
      return text.at + 1;
    }
    if (!text.put(dentry->d_name.name, static_cast<int>(dentry->d_name.len)) || !text.put("/"))
      return too_long;
    empty = false;
    dentry = dentry->d_parent;
  }
  if (empty && !text.put("/")) return too_long;
  return text.at;
}

char *d_path(struct dentry *dentry, struct vfsmount *mnt, char *buf, int buflen) {
  struct fs_struct *fs = current->fs;
  struct vfsmount *rootmnt;
  struct dentry *root;
  char *path;

  {
    ReadGuard guard(fs->lock);
    rootmnt = mntget(fs->rootmnt);
    root = dget(fs->root);
  }
  {
    SpinGuard guard(dcache_lock);
    path = path_locked(dentry, mnt, root, rootmnt, buf, buflen);
  }
  dput(root);
  mntput(rootmnt);
  return path;
}
