// SPDX-License-Identifier: GPL-2.0
// The nodes of each inode, and finding the dentry for a call on a node.
#include <linux/dcache.h>
#include <linux/err.h>
#include <linux/errno.h>
#include <linux/fs.h>
#include <linux/hash.h>
#include <linux/kernel.h>
#include <linux/limits.h>
#include <linux/mm.h>
#include <linux/mount.h>
#include <linux/namei.h>
#include <linux/slab.h>
#include <linux/spinlock.h>
#include <linux/stat.h>
#include <linux/string.h>
#include "ukern/door/node.h"
#include "ukern/sync/guard.h"

struct uk_node {
  struct uk_node *next;  // of the inode's nodes
  unsigned long count;   // under the inode's node lock, as is the list
  struct inode *inode;   // pinned by the dentry
  struct vfsmount *mnt;
  ukern_field<struct dentry *> dentry;  // `lock` covers changing it and taking further references
  struct dentry *kept;                  // under `lock`: see node_keep_name(); often NULL
  spinlock_t lock;
  unsigned long room[UK_NODE_ROOM / sizeof(unsigned long)];  // private data of the hosting program
};

namespace {

// Hashed locks: each covers the nodes of many inodes.
constexpr unsigned kLockBits = 6;

spinlock_t node_locks[1u << kLockBits];
kmem_cache_t *node_cache;

spinlock_t *lock_of(struct inode *inode) {
  return &node_locks[hash_long(reinterpret_cast<unsigned long>(inode), kLockBits)];
}

struct uk_node *new_node(struct vfsmount *mnt, struct dentry *dentry) {
  auto *node = static_cast<struct uk_node *>(kmem_cache_alloc(node_cache, GFP_KERNEL));
  if (!node) return nullptr;
  node->count = 1;
  node->inode = dentry->d_inode;
  node->mnt = mntget(mnt);
  node->dentry = dget(dentry);
  node->kept = nullptr;
  spin_lock_init(&node->lock);
  memset(node->room, 0, sizeof(node->room));
  return node;
}

void free_node(struct uk_node *node) {
  dput(node->kept);
  dput(node->dentry);
  mntput(node->mnt);
  kmem_cache_free(node_cache, node);
}

// Finds the node of (inode, mnt) and takes a reference. If there is none, adds `fresh` with the
// reference that it has, or returns NULL without `fresh`.
struct uk_node *find_or_add(struct inode *inode, struct vfsmount *mnt, struct uk_node *fresh) {
  SpinGuard guard(*lock_of(inode));
  struct uk_node *found = inode->i_nodes;
  while (found && found->mnt != mnt) found = found->next;
  if (found) {
    found->count++;
  } else if (fresh) {
    fresh->next = inode->i_nodes;
    inode->i_nodes = fresh;
  }
  return found ? found : fresh;
}

void remove_locked(struct uk_node *node) {
  struct uk_node *before = node->inode->i_nodes;
  if (before == node) {
    node->inode->i_nodes = node->next;
    return;
  }
  while (before->next != node) before = before->next;
  before->next = node->next;
}

void hold_dentry(struct uk_node *node, struct dentry *dentry) {
  if (node->dentry == dentry) return;
  struct dentry *old;
  {
    SpinGuard guard(node->lock);
    old = node->dentry;
    node->dentry = dget(dentry);
  }
  dput(old);
}

// The parent, with a reference, and the name for walking the last component again. False for a
// mount root or a dentry without a parent.
bool last_step(struct walk_path *held, struct dentry **parent, char *name) {
  struct dentry *dentry = held->dentry;
  if (dentry == held->mnt->mnt_root) return false;
  SpinGuard guard(dentry->d_lock);
  const unsigned len = dentry->d_name.len;
  const bool named = !IS_ROOT(dentry) && len <= NAME_MAX;
  if (named) {
    memcpy(name, dentry->d_name.name, len);
    name[len] = '\0';
    *parent = dget(dentry->d_parent);
  }
  return named;
}

// Errors that mean only that the name does not lead to the node now. Permission on the directory
// was checked at lookup; an object in use stays usable when that permission is withdrawn.
bool name_is_gone(int error) {
  return error == -ENOENT || error == -ENOTDIR || error == -ESTALE || error == -EACCES;
}

bool leads_to(struct nameidata *nd, struct uk_node *node) {
  return nd->dentry->d_inode == node->inode && nd->mnt == node->mnt;
}

// Walks to the object that has the name now. A directory that its file system has disowned stays
// hashed while it is in use, and its node is a user. Such a directory is unhashed here and the name
// walked again; its nodes stay valid.
int walk_name(struct walk_path *dir, const char *name, struct nameidata *nd) {
  int error = path_lookup_from(dir, name, 0, nd);
  if (error || !(nd->flags & WALK_DISOWNED) || have_submounts(nd->dentry)) return error;
  d_drop(nd->dentry);
  path_release(nd);
  return path_lookup_from(dir, name, 0, nd);
}

// Prepares opening path->dentry without a walk. Consumes the dentry's reference, also on failure.
int open_in_place(struct walk_path *path, int flags, struct nameidata *nd) {
  struct file *file = get_empty_filp();
  if (!file) {
    dput(path->dentry);
    return -ENFILE;
  }
  memset(nd, 0, sizeof(*nd));
  nd->mnt = mntget(path->mnt);
  nd->dentry = path->dentry;
  nd->flags = LOOKUP_OPEN;
  nd->last_type = LAST_ROOT;
  nd->intent.open.file = file;
  nd->intent.open.flags = flags;
  return 0;
}

// If the node's name is gone, switches a file's node and path to another alias of the inode.
void use_other_name(struct uk_node *node, struct walk_path *path) {
  struct inode *inode = path->dentry->d_inode;
  if (!d_unhashed(path->dentry) || S_ISDIR(inode->i_mode)) return;
  struct dentry *other = d_find_alias(inode);
  if (!other) return;
  hold_dentry(node, other);
  dput(path->dentry);
  path->dentry = other;
}

}  // namespace

extern "C" {

int ukern_nodes_init(void) {
  for (spinlock_t &lock : node_locks) spin_lock_init(&lock);
  node_cache = kmem_cache_create("uk_node", sizeof(struct uk_node), 0, 0, nullptr, nullptr);
  return node_cache ? 0 : -ENOMEM;
}

void ukern_nodes_exit(void) {
  if (!node_cache) return;
  kmem_cache_destroy(node_cache);  // reports leaked nodes
  node_cache = nullptr;
}

int node_get(struct vfsmount *mnt, struct dentry *dentry, struct uk_node **out) {
  struct inode *inode = dentry->d_inode;
  if (!inode) return -ENOENT;
  struct uk_node *node = find_or_add(inode, mnt, nullptr);
  if (!node) {
    struct uk_node *fresh = new_node(mnt, dentry);
    if (!fresh) return -ENOMEM;
    node = find_or_add(inode, mnt, fresh);
    if (node != fresh) free_node(fresh);
  }
  hold_dentry(node, dentry);
  *out = node;
  return 0;
}

void uk_node_get(struct uk_node *node) {
  SpinGuard guard(*lock_of(node->inode));
  node->count++;
}

int uk_node_place(struct uk_node *node, struct uk_node **dir, char name[256]) {
  static_assert(NAME_MAX + 1 == 256);
  if (S_ISDIR(node->inode->i_mode)) return -EISDIR;
  struct walk_path held;
  node_hold(node, &held);
  struct dentry *parent = nullptr;
  *dir = nullptr;
  if (!d_unhashed(held.dentry) && last_step(&held, &parent, name)) {
    *dir = find_or_add(parent->d_inode, held.mnt, nullptr);
    dput(parent);
  }
  dput(held.dentry);
  return *dir ? 0 : -ENOENT;
}

void uk_node_put(struct uk_node *node, unsigned long count) {
  {
    SpinGuard guard(*lock_of(node->inode));
    BUG_ON(count > node->count);
    node->count -= count;
    if (node->count) return;
    remove_locked(node);
  }
  free_node(node);
}

void *uk_node_room(struct uk_node *node) {
  return node->room;
}

unsigned long long uk_node_ino(struct uk_node *node) {
  return node->inode->i_ino;
}

void node_hold(struct uk_node *node, struct walk_path *path) {
  path->mnt = node->mnt;
  SpinGuard guard(node->lock);
  path->dentry = dget(node->dentry);
}

int node_walk(struct uk_node *node, struct walk_path *path) {
  char name[NAME_MAX + 1];
  struct walk_path from;
  struct nameidata nd;
  node_hold(node, path);
  from.mnt = path->mnt;
  if (!last_step(path, &from.dentry, name)) return 0;
  const int error = path_lookup_from(&from, name, 0, &nd);
  dput(from.dentry);
  if (error && !name_is_gone(error)) {
    dput(path->dentry);
    return error;
  }
  if (!error && leads_to(&nd, node)) {
    hold_dentry(node, nd.dentry);
    dput(path->dentry);
    mntput(nd.mnt);
    path->dentry = nd.dentry;
  } else {
    if (!error) path_release(&nd);
    use_other_name(node, path);
  }
  return 0;
}

void node_keep_name(struct uk_node *node) {
  struct walk_path path;
  if (node->inode->i_nlink > 2 || node_walk(node, &path)) return;
  struct dentry *old;
  {
    SpinGuard guard(node->lock);
    old = node->kept;
    node->kept = path.dentry;
  }
  dput(old);
}

int node_walk_to_open(struct uk_node *node, int flags, struct nameidata *nd) {
  char name[NAME_MAX + 1];
  struct walk_path held, from;
  node_hold(node, &held);
  from.mnt = held.mnt;
  if (last_step(&held, &from.dentry, name)) {
    const int error = path_lookup_open_from(&from, name, 0, nd, flags);
    dput(from.dentry);
    if (!error && leads_to(nd, node)) {
      hold_dentry(node, nd->dentry);
      dput(held.dentry);
      return 0;
    }
    if (!error) {
      release_open_intent(nd);
      path_release(nd);
    } else if (!name_is_gone(error)) {
      dput(held.dentry);
      return error;
    }
    use_other_name(node, &held);
  }
  return open_in_place(&held, flags, nd);
}

int node_check_name(const char *name) {
  if (!*name) return -ENOENT;
  const char *end = name;
  while (*end && *end != '/') end++;
  if (*end || (end - name <= 2 && (!strcmp(name, ".") || !strcmp(name, "..")))) return -EINVAL;
  return end - name >= PATH_MAX ? -ENAMETOOLONG : 0;
}

int node_result(struct walk_path *dir, const char *name, struct uk_node **out,
                struct uk_stat *stat) {
  struct nameidata nd;
  int error = walk_name(dir, name, &nd);
  if (error) return error;
  // The hosting program's host knows by itself what is mounted there. It must find the directory
  // below unchanged: it detaches a mount whose mount point has become another object.
  while (nd.mnt != dir->mnt && follow_up(&nd.mnt, &nd.dentry)) {
  }
  struct walk_path path = {nd.mnt, nd.dentry};
  error = node_stat(&path, stat);
  if (!error && out) error = node_get(path.mnt, path.dentry, out);
  path_put(&path);
  return error;
}

}  // extern "C"
