// SPDX-License-Identifier: GPL-2.0
// The path walk: component by component from a dentry and mount to the next, through the dentry
// cache, the file system's lookup, mounts and symbolic links.
//
// During a walk the nameidata owns a reference on its dentry and mount. Every error return has
// released both.
#include <linux/dcache.h>
#include <linux/err.h>
#include <linux/errno.h>
#include <linux/fcntl.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/mount.h>
#include <linux/mutex.h>
#include <linux/namei.h>
#include <linux/sched.h>
#include <linux/slab.h>
#include <linux/stat.h>
#include <linux/string.h>
#include <asm/uaccess.h>
#include "ukern/sync/guard.h"
#include "ukern/vfs/walk.h"

namespace {

constexpr int kMaxLinks = 40;  // followed in one walk, nested or one after the other

int fail(struct nameidata *nd, int error) {
  path_release(nd);
  return error;
}

// Hashes the component at `name` into `part`; returns the first character behind it.
const char *hash_component(const char *name, struct qstr *part) {
  unsigned long hash = init_name_hash();
  part->name = reinterpret_cast<const unsigned char *>(name);
  while (*name && *name != '/') hash = partial_name_hash(static_cast<unsigned char>(*name++), hash);
  part->len = static_cast<unsigned>(name - reinterpret_cast<const char *>(part->name));
  part->hash = static_cast<unsigned>(end_name_hash(hash));
  return name;
}

int component_type(const struct qstr *part) {
  if (part->name[0] != '.') return LAST_NORM;
  if (part->len == 1) return LAST_DOT;
  return part->len == 2 && part->name[1] == '.' ? LAST_DOTDOT : LAST_NORM;
}

bool is_link(struct inode *inode) {
  return inode->i_op && inode->i_op->follow_link;
}

bool is_searchable(struct inode *inode) {
  return inode->i_op && inode->i_op->lookup;
}

void start_at_root(struct nameidata *nd) {
  ReadGuard guard(current->fs->lock);
  nd->mnt = mntget(current->fs->rootmnt);
  nd->dentry = dget(current->fs->root);
}

void start_at_pwd(struct nameidata *nd) {
  ReadGuard guard(current->fs->lock);
  nd->mnt = mntget(current->fs->pwdmnt);
  nd->dentry = dget(current->fs->pwd);
}

bool at_root(struct nameidata *nd) {
  ReadGuard guard(current->fs->lock);
  return nd->dentry == current->fs->root && nd->mnt == current->fs->rootmnt;
}

// Revalidates a cached dentry. Returns it, or NULL with the reference dropped if it is invalid. A
// directory in use that cannot be invalidated is returned, with WALK_DISOWNED in nd.
struct dentry *revalidate(struct dentry *dentry, struct nameidata *nd) {
  if (!dentry->d_op || !dentry->d_op->d_revalidate) return dentry;
  current->walked = dentry;
  const int holds = dentry->d_op->d_revalidate(dentry, nd);
  current->walked = nullptr;
  if (holds) return dentry;
  if (d_invalidate(dentry)) {
    if (nd) nd->flags |= WALK_DISOWNED;
    return dentry;
  }
  dput(dentry);
  return nullptr;
}

int apply_d_hash(struct dentry *base, struct qstr *name) {
  if (!base->d_op || !base->d_op->d_hash) return 0;
  const int error = base->d_op->d_hash(base, name);
  return error < 0 ? error : 0;
}

// Looks a name up in the file system, with a new dentry. The caller holds the directory's i_mutex.
struct dentry *lookup_below(struct dentry *parent, struct qstr *name, struct nameidata *nd) {
  struct dentry *fresh = d_alloc(parent, name);
  if (!fresh) return static_cast<struct dentry *>(ERR_PTR(-ENOMEM));
  struct inode *dir = parent->d_inode;
  struct dentry *other = dir->i_op->lookup(dir, fresh, nd);
  if (!other) return fresh;
  dput(fresh);
  return other;
}

// For a name that is not in the cache. Searches the cache again under the directory's i_mutex,
// since another walk may have added the name, then asks the file system.
struct dentry *real_lookup(struct dentry *parent, struct qstr *name, struct nameidata *nd) {
  struct dentry *result;
  {
    MutexGuard guard(parent->d_inode->i_mutex);
    result = d_lookup(parent, name);
    if (!result) return lookup_below(parent, name, nd);
  }
  result = revalidate(result, nd);
  return result ? result : static_cast<struct dentry *>(ERR_PTR(-ENOENT));
}

// Looks up one component from nd's dentry and follows mounts on it. `path` gets a reference on the
// dentry, and on the mount if one was crossed.
int do_lookup(struct nameidata *nd, struct qstr *name, struct walk_path *path) {
  nd->flags &= ~WALK_DISOWNED;
  struct dentry *dentry = __d_lookup(nd->dentry, name);
  if (dentry) dentry = revalidate(dentry, nd);
  if (!dentry) dentry = real_lookup(nd->dentry, name, nd);
  if (IS_ERR(dentry)) return static_cast<int>(PTR_ERR(dentry));
  path->mnt = nd->mnt;
  path->dentry = dentry;
  __follow_mount(path);
  return 0;
}

void follow_mount(struct vfsmount **mnt, struct dentry **dentry) {
  while (d_mountpoint(*dentry) && follow_down(mnt, dentry)) {
  }
}

// Steps to the parent inside the mount; false at the mount's root.
bool step_up(struct nameidata *nd) {
  struct dentry *old = nd->dentry;
  {
    SpinGuard guard(dcache_lock);
    if (old == nd->mnt->mnt_root) return false;
    nd->dentry = dget(old->d_parent);
  }
  dput(old);
  return true;
}

// "..": never above the task's root; at the root of a mount, the parent of its mount point.
void follow_dotdot(struct nameidata *nd) {
  while (!at_root(nd)) {
    if (step_up(nd) || !follow_up(&nd->mnt, &nd->dentry)) break;
  }
  follow_mount(&nd->mnt, &nd->dentry);
}

// Follows a link inside a walk, within the limits on the nesting and the number of links.
int do_follow_link(struct walk_path *path, struct nameidata *nd) {
  if (current->link_count >= MAX_NESTED_LINKS || current->total_link_count >= kMaxLinks) {
    dput_path(path, nd);
    return fail(nd, -ELOOP);
  }
  BUG_ON(nd->depth >= MAX_NESTED_LINKS);
  cond_resched();
  current->link_count++;
  current->total_link_count++;
  nd->depth++;
  const int error = __do_follow_link(path, nd);
  current->link_count--;
  nd->depth--;
  return error;
}

// Ends a walk without a lookup ("/", ".", ".."): revalidates in file systems with FS_REVAL_DOT.
int finish_in_place(struct nameidata *nd) {
  struct dentry *dentry = nd->dentry;
  if (dentry->d_sb && (dentry->d_sb->s_type->fs_flags & FS_REVAL_DOT) &&
      !dentry->d_op->d_revalidate(dentry, nd))
    return fail(nd, -ESTALE);
  return 0;
}

// Walks a component with others behind it: it must lead to a directory.
int walk_inner(struct nameidata *nd, struct qstr *part) {
  struct walk_path next;
  int error = apply_d_hash(nd->dentry, part);
  if (!error) error = do_lookup(nd, part, &next);
  if (error) return fail(nd, error);

  struct inode *inode = next.dentry->d_inode;
  if (!inode || !inode->i_op) {
    dput_path(&next, nd);
    return fail(nd, inode ? -ENOTDIR : -ENOENT);
  }
  if (is_link(inode)) {
    error = do_follow_link(&next, nd);
    if (error) return error;
    inode = nd->dentry->d_inode;
    if (!inode) return fail(nd, -ENOENT);
  } else {
    path_to_nameidata(&next, nd);
  }
  return is_searchable(inode) ? 0 : fail(nd, -ENOTDIR);
}

int walk_last(struct nameidata *nd, struct qstr *part, unsigned flags) {
  // LOOKUP_CONTINUE stays set if this is a link's text and the outer walk continues.
  nd->flags &= flags | ~LOOKUP_CONTINUE;
  const int type = component_type(part);
  if (flags & LOOKUP_PARENT) {
    nd->last = *part;
    nd->last_type = type;
    return type == LAST_NORM ? 0 : finish_in_place(nd);
  }
  if (type == LAST_DOTDOT) follow_dotdot(nd);
  if (type != LAST_NORM) return finish_in_place(nd);

  struct walk_path next;
  int error = apply_d_hash(nd->dentry, part);
  if (!error) error = do_lookup(nd, part, &next);
  if (error) return fail(nd, error);

  struct inode *inode = next.dentry->d_inode;
  if ((flags & LOOKUP_FOLLOW) && inode && is_link(inode)) {
    error = do_follow_link(&next, nd);
    if (error) return error;
    inode = nd->dentry->d_inode;
  } else {
    path_to_nameidata(&next, nd);
  }
  if (!inode) return fail(nd, -ENOENT);
  if ((flags & LOOKUP_DIRECTORY) && !is_searchable(inode)) return fail(nd, -ENOTDIR);
  return 0;
}

int walk_components(const char *name, struct nameidata *nd) {
  // Inside a link's text the last component is always followed, and of the flags only
  // LOOKUP_CONTINUE counts.
  unsigned flags = nd->depth ? LOOKUP_FOLLOW | (nd->flags & LOOKUP_CONTINUE) : nd->flags;
  while (*name == '/') name++;
  if (!*name) {
    nd->last_type = LAST_ROOT;  // replaces the value of the walk before this link's text
    return finish_in_place(nd);
  }

  for (;;) {
    struct qstr part;
    nd->flags |= LOOKUP_CONTINUE;
    name = hash_component(name, &part);
    int error = vfs_permission(nd, MAY_EXEC);
    if (error) return fail(nd, error);

    if (!*name) return walk_last(nd, &part, flags);
    while (*name == '/') name++;
    if (!*name) return walk_last(nd, &part, flags | LOOKUP_FOLLOW | LOOKUP_DIRECTORY);

    switch (component_type(&part)) {
      case LAST_DOTDOT:
        follow_dotdot(nd);
        break;
      case LAST_DOT:
        break;
      default:
        error = walk_inner(nd, &part);
        if (error) return error;
    }
  }
}

// The caller has a second reference on the start of the walk.
int walk_from_held(const char *name, struct nameidata *nd) {
  might_sleep();
  const struct nameidata start = *nd;
  const int error = walk_components(name, nd);
  if (error != -ESTALE) return error;
  // A cached dentry was stale: walks again, with every file system told to revalidate.
  *nd = start;
  dget(nd->dentry);
  mntget(nd->mnt);
  nd->flags |= LOOKUP_REVAL;
  return walk_components(name, nd);
}

// Continues the walk with a link's text.
int follow_text(struct nameidata *nd, const char *link) {
  if (IS_ERR(link)) return fail(nd, static_cast<int>(PTR_ERR(link)));
  if (*link == '/') {
    path_release(nd);
    start_at_root(nd);
  }
  const int error = link_path_walk(link, nd);
  if (nd->depth || error || nd->last_type != LAST_NORM) return error;

  // open_namei follows links itself and needs the last name after the text is freed.
  auto *name = static_cast<char *>(__getname());
  if (!name) return fail(nd, -ENOMEM);
  strcpy(name, reinterpret_cast<const char *>(nd->last.name));
  nd->last.name = reinterpret_cast<const unsigned char *>(name);
  return 0;
}

}  // namespace

extern "C" {

void path_put(struct walk_path *path) {
  dput(path->dentry);
  mntput(path->mnt);
}

void path_release(struct nameidata *nd) {
  dput(nd->dentry);
  mntput(nd->mnt);
}

void path_release_on_umount(struct nameidata *nd) {
  dput(nd->dentry);
  mntput_no_expire(nd->mnt);
}

void dput_path(struct walk_path *path, struct nameidata *nd) {
  dput(path->dentry);
  if (path->mnt != nd->mnt) mntput(path->mnt);
}

void path_to_nameidata(struct walk_path *path, struct nameidata *nd) {
  dput(nd->dentry);
  if (nd->mnt != path->mnt) mntput(nd->mnt);
  nd->mnt = path->mnt;
  nd->dentry = path->dentry;
}

int follow_up(struct vfsmount **mnt, struct dentry **dentry) {
  struct vfsmount *parent;
  struct dentry *mountpoint;
  {
    SpinGuard guard(vfsmount_lock);
    parent = (*mnt)->mnt_parent;
    if (parent == *mnt) return 0;
    mntget(parent);
    mountpoint = dget((*mnt)->mnt_mountpoint);
  }
  dput(*dentry);
  *dentry = mountpoint;
  mntput(*mnt);
  *mnt = parent;
  return 1;
}

int follow_down(struct vfsmount **mnt, struct dentry **dentry) {
  struct vfsmount *mounted = lookup_mnt(*mnt, *dentry);
  if (!mounted) return 0;
  dput(*dentry);
  mntput(*mnt);
  *mnt = mounted;
  *dentry = dget(mounted->mnt_root);
  return 1;
}

// Not follow_down in a loop: the reference on the first mount is the nameidata's, not the path's.
int __follow_mount(struct walk_path *path) {
  int crossed = 0;
  while (d_mountpoint(path->dentry)) {
    struct vfsmount *mounted = lookup_mnt(path->mnt, path->dentry);
    if (!mounted) break;
    dput(path->dentry);
    if (crossed) mntput(path->mnt);
    path->mnt = mounted;
    path->dentry = dget(mounted->mnt_root);
    crossed = 1;
  }
  return crossed;
}

int __do_follow_link(struct walk_path *path, struct nameidata *nd) {
  struct dentry *dentry = path->dentry;
  struct inode *inode = dentry->d_inode;
  touch_atime(path->mnt, dentry);
  nd_set_link(nd, nullptr);

  // A relative text continues at nd, the link's directory. If a mount was crossed on the way to the
  // link, it continues at the link itself.
  if (path->mnt != nd->mnt) {
    path_to_nameidata(path, nd);
    dget(dentry);
  }
  mntget(path->mnt);
  // An error pointer means that follow_link has released nd too. A file system that cannot read its
  // link must do so, or report the error as the link's text; otherwise nd leaks.
  void *cookie = inode->i_op->follow_link(dentry, nd);
  int error = 0;
  if (IS_ERR(cookie)) {
    error = static_cast<int>(PTR_ERR(cookie));
  } else {
    char *text = nd_get_link(nd);
    if (text) error = follow_text(nd, text);
    if (inode->i_op->put_link) inode->i_op->put_link(dentry, nd, cookie);
  }
  dput(dentry);
  mntput(path->mnt);
  return error;
}

int link_path_walk(const char *name, struct nameidata *nd) {
  struct walk_path start = {mntget(nd->mnt), dget(nd->dentry)};
  const int error = walk_from_held(name, nd);
  path_put(&start);
  return error;
}

int path_walk(const char *name, struct nameidata *nd) {
  current->total_link_count = 0;
  return link_path_walk(name, nd);
}

int path_lookup_from(const struct walk_path *base, const char *name, unsigned flags,
                     struct nameidata *nd) {
  nd->last_type = LAST_ROOT;
  nd->flags = flags;
  nd->depth = 0;
  if (*name == '/' || !base) {
    if (*name == '/')
      start_at_root(nd);
    else
      start_at_pwd(nd);
    return path_walk(name, nd);
  }
  if (!S_ISDIR(base->dentry->d_inode->i_mode)) return -ENOTDIR;
  nd->mnt = mntget(base->mnt);
  nd->dentry = dget(base->dentry);
  current->total_link_count = 0;
  return walk_from_held(name, nd);
}

int path_lookup(const char *name, unsigned flags, struct nameidata *nd) {
  return path_lookup_from(nullptr, name, flags, nd);
}

// Copies a name from user memory, for __putname. ERR_PTR: -EFAULT, -ENOENT for the empty name,
// -ENAMETOOLONG, -ENOMEM.
char *getname(const char __user *filename) {
  auto *name = static_cast<char *>(__getname());
  if (!name) return static_cast<char *>(ERR_PTR(-ENOMEM));
  const long len = strncpy_from_user(name, filename, PATH_MAX);
  if (len > 0 && len < PATH_MAX) return name;
  __putname(name);
  return static_cast<char *>(ERR_PTR(len < 0 ? len : len ? -ENAMETOOLONG : -ENOENT));
}

struct dentry *__lookup_hash(struct qstr *name, struct dentry *base, struct nameidata *nd) {
  int error = permission(base->d_inode, MAY_EXEC, nd);
  if (!error) error = apply_d_hash(base, name);
  if (error) return static_cast<struct dentry *>(ERR_PTR(error));

  struct dentry *dentry = d_lookup(base, name);
  if (dentry) dentry = revalidate(dentry, nd);
  return dentry ? dentry : lookup_below(base, name, nd);
}

struct dentry *lookup_hash(struct nameidata *nd) {
  return __lookup_hash(&nd->last, nd->dentry, nd);
}

struct dentry *lookup_one_len(const char *name, struct dentry *base, int len) {
  struct qstr part;
  unsigned long hash = init_name_hash();
  if (!len) return static_cast<struct dentry *>(ERR_PTR(-EACCES));
  for (int i = 0; i < len; i++) {
    if (name[i] == '/' || name[i] == '\0') return static_cast<struct dentry *>(ERR_PTR(-EACCES));
    hash = partial_name_hash(static_cast<unsigned char>(name[i]), hash);
  }
  part.name = reinterpret_cast<const unsigned char *>(name);
  part.len = static_cast<unsigned>(len);
  part.hash = static_cast<unsigned>(end_name_hash(hash));
  return __lookup_hash(&part, base, nullptr);
}

struct dentry *lookup_create(struct nameidata *nd, int is_dir) {
  mutex_lock_nested(&nd->dentry->d_inode->i_mutex, I_MUTEX_PARENT);
  if (nd->last_type != LAST_NORM) return static_cast<struct dentry *>(ERR_PTR(-EEXIST));
  nd->flags &= ~LOOKUP_PARENT;
  nd->flags |= LOOKUP_CREATE;
  nd->intent.open.flags = O_EXCL;
  struct dentry *dentry = lookup_hash(nd);
  if (IS_ERR(dentry)) return dentry;
  // A trailing slash is for directories, and the caller creates none.
  if (!is_dir && nd->last.name[nd->last.len] && !dentry->d_inode) {
    dput(dentry);
    return static_cast<struct dentry *>(ERR_PTR(-ENOENT));
  }
  return dentry;
}

}  // extern "C"
