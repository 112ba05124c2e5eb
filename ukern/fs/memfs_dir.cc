// SPDX-License-Identifier: GPL-2.0
// memfs: names, attributes and symbolic links.
#include "ukern/fs/memfs_internal.h"

#include <linux/err.h>
#include <linux/hash.h>
#include <linux/limits.h>
#include <linux/namei.h>
#include <linux/slab.h>
#include <linux/string.h>

#include "ukern/sync/guard.h"

namespace {

struct hlist_head *chain_of(struct memfs_sb *info, const struct memfs_node *dir,
                            const struct qstr *name) {
  const unsigned long mixed = full_name_hash(name->name, name->len) + (dir->ino << 20);
  return &info->names[hash_long(mixed, MEMFS_HASH_BITS)];
}

// memfs_sb.lock is held. The entry stays while the caller holds the directory's i_mutex.
struct memfs_entry *find_locked(struct memfs_sb *info, const struct memfs_node *dir,
                                const struct qstr *name) {
  struct memfs_entry *entry;
  struct hlist_node *at;
  hlist_for_each_entry(entry, at, chain_of(info, dir, name), by_name) {
    if (entry->dir == dir && entry->length == name->len &&
        !memcmp(entry->name, name->name, name->len))
      return entry;
  }
  return nullptr;
}

struct memfs_entry *find(struct inode *dir, const struct dentry *dentry) {
  struct memfs_sb *info = memfs_s(dir->i_sb);
  SpinGuard guard(info->lock);
  return find_locked(info, memfs_n(dir), &dentry->d_name);
}

struct memfs_entry *new_entry(const struct dentry *dentry) {
  const unsigned length = dentry->d_name.len;
  auto *entry = static_cast<struct memfs_entry *>(
      kzalloc(sizeof(struct memfs_entry) + length + 1, GFP_KERNEL));
  if (!entry) return nullptr;
  entry->length = length;
  memcpy(entry->name, dentry->d_name.name, length);
  return entry;
}

void add_entry(struct inode *dir, const struct dentry *dentry, struct memfs_entry *entry,
               struct memfs_node *node) {
  struct memfs_sb *info = memfs_s(dir->i_sb);
  struct memfs_node *parent = memfs_n(dir);
  entry->dir = parent;
  entry->node = node;
  SpinGuard guard(info->lock);
  entry->position = parent->next_position++;
  hlist_add_head(&entry->by_name, chain_of(info, parent, &dentry->d_name));
  list_add_tail(&entry->in_dir, &parent->entries);
}

void remove_entry(struct inode *dir, struct memfs_entry *entry) {
  struct memfs_sb *info = memfs_s(dir->i_sb);
  {
    SpinGuard guard(info->lock);
    hlist_del(&entry->by_name);
    list_del(&entry->in_dir);
  }
  kfree(entry);
}

// Creates a node and its inode under a name. Everything that can fail comes before anything is
// visible.
int make(struct inode *dir, struct dentry *dentry, int mode, dev_t rdev, const char *target) {
  if (dentry->d_name.len > NAME_MAX) return -ENAMETOOLONG;
  struct memfs_entry *entry = new_entry(dentry);
  if (!entry) return -ENOMEM;
  struct memfs_node *node = memfs_new_node(dir->i_sb, static_cast<umode_t>(mode), rdev);
  auto *inode = static_cast<struct inode *>(ERR_PTR(-ENOMEM));
  if (node) {
    node->parent = memfs_n(dir);
    if (dir->i_mode & S_ISGID) {
      node->gid = dir->i_gid;
      if (S_ISDIR(mode)) node->mode |= S_ISGID;
    }
    if (target) {
      node->size = static_cast<loff_t>(strlen(target));
      node->target = static_cast<char *>(kmalloc(static_cast<size_t>(node->size) + 1, GFP_KERNEL));
      if (node->target) strcpy(node->target, target);
    }
    if (!target || node->target) inode = memfs_iget(dir->i_sb, node);
  }
  if (IS_ERR(inode)) {
    if (node) memfs_free_node(dir->i_sb, node);
    kfree(entry);
    return static_cast<int>(PTR_ERR(inode));
  }
  add_entry(dir, dentry, entry, node);
  if (S_ISDIR(mode)) dir->i_nlink++;
  memfs_touch(dir);
  d_instantiate(dentry, inode);
  return 0;
}

struct dentry *memfs_lookup(struct inode *dir, struct dentry *dentry, struct nameidata *);

int memfs_create(struct inode *dir, struct dentry *dentry, int mode, struct nameidata *) {
  if (int error = memfs_check(dir->i_sb, MEMFS_OP_CREATE)) return error;
  return make(dir, dentry, (mode & ~S_IFMT) | S_IFREG, 0, nullptr);
}

int memfs_mkdir(struct inode *dir, struct dentry *dentry, int mode) {
  if (int error = memfs_check(dir->i_sb, MEMFS_OP_MKDIR)) return error;
  return make(dir, dentry, (mode & ~S_IFMT) | S_IFDIR, 0, nullptr);
}

int memfs_mknod(struct inode *dir, struct dentry *dentry, int mode, dev_t dev) {
  if (int error = memfs_check(dir->i_sb, MEMFS_OP_MKNOD)) return error;
  return make(dir, dentry, mode, dev, nullptr);
}

int memfs_symlink(struct inode *dir, struct dentry *dentry, const char *target) {
  if (int error = memfs_check(dir->i_sb, MEMFS_OP_SYMLINK)) return error;
  if (strlen(target) >= PATH_MAX) return -ENAMETOOLONG;
  return make(dir, dentry, S_IFLNK | 0777, 0, target);
}

int memfs_link(struct dentry *old_dentry, struct inode *dir, struct dentry *dentry) {
  struct inode *inode = old_dentry->d_inode;
  if (int error = memfs_check(dir->i_sb, MEMFS_OP_LINK)) return error;
  if (dentry->d_name.len > NAME_MAX) return -ENAMETOOLONG;
  struct memfs_entry *entry = new_entry(dentry);
  if (!entry) return -ENOMEM;
  add_entry(dir, dentry, entry, memfs_n(inode));
  inode->i_nlink++;
  inode->i_ctime = current_fs_time(inode->i_sb);
  mark_inode_dirty(inode);
  memfs_touch(dir);
  d_instantiate(dentry, igrab(inode));
  return 0;
}

void drop_link(struct inode *inode, unsigned links) {
  inode->i_nlink -= links;
  inode->i_ctime = current_fs_time(inode->i_sb);
  mark_inode_dirty(inode);
}

int memfs_unlink(struct inode *dir, struct dentry *dentry) {
  if (int error = memfs_check(dir->i_sb, MEMFS_OP_UNLINK)) return error;
  struct memfs_entry *entry = find(dir, dentry);
  if (!entry) return -ENOENT;
  remove_entry(dir, entry);
  drop_link(dentry->d_inode, 1);
  memfs_touch(dir);
  return 0;
}

int memfs_rmdir(struct inode *dir, struct dentry *dentry) {
  if (int error = memfs_check(dir->i_sb, MEMFS_OP_RMDIR)) return error;
  struct memfs_entry *entry = find(dir, dentry);
  if (!entry) return -ENOENT;
  if (!list_empty(&entry->node->entries)) return -ENOTEMPTY;
  remove_entry(dir, entry);
  drop_link(dentry->d_inode, 2);
  dir->i_nlink--;
  memfs_touch(dir);
  return 0;
}

// A directory is renamed without its own i_mutex, and its old parent may be freed at once; so
// readdir reads the parent under the lock.
void set_parent(struct inode *dir, struct memfs_node *parent) {
  struct memfs_sb *info = memfs_s(dir->i_sb);
  SpinGuard guard(info->lock);
  memfs_n(dir)->parent = parent;
}

unsigned long parent_ino(struct inode *dir) {
  struct memfs_sb *info = memfs_s(dir->i_sb);
  SpinGuard guard(info->lock);
  return memfs_n(dir)->parent->ino;
}

int memfs_rename(struct inode *old_dir, struct dentry *old_dentry, struct inode *new_dir,
                 struct dentry *new_dentry) {
  if (int error = memfs_check(old_dir->i_sb, MEMFS_OP_RENAME)) return error;
  struct inode *inode = old_dentry->d_inode;
  struct inode *replaced = new_dentry->d_inode;
  const bool is_dir = S_ISDIR(inode->i_mode);
  struct memfs_entry *from = find(old_dir, old_dentry);
  struct memfs_entry *over = find(new_dir, new_dentry);
  if (!from || !over != !replaced) return -ENOENT;
  if (is_dir && over && !list_empty(&over->node->entries)) return -ENOTEMPTY;
  if (new_dentry->d_name.len > NAME_MAX) return -ENAMETOOLONG;
  struct memfs_entry *to = new_entry(new_dentry);
  if (!to) return -ENOMEM;

  if (over) {
    remove_entry(new_dir, over);
    drop_link(replaced, is_dir ? 2 : 1);
    if (is_dir) new_dir->i_nlink--;
  }
  add_entry(new_dir, new_dentry, to, from->node);
  remove_entry(old_dir, from);
  if (is_dir) {
    set_parent(inode, memfs_n(new_dir));
    old_dir->i_nlink--;
    new_dir->i_nlink++;
  }
  inode->i_ctime = current_fs_time(inode->i_sb);
  mark_inode_dirty(inode);
  memfs_touch(old_dir);
  memfs_touch(new_dir);
  return 0;
}

int memfs_revalidate(struct dentry *dentry, struct nameidata *) {
  return memfs_s(dentry->d_sb)->revalidate;
}

struct dentry_operations memfs_dops = {
    .d_revalidate = memfs_revalidate,
};

struct dentry *memfs_lookup(struct inode *dir, struct dentry *dentry, struct nameidata *) {
  if (int error = memfs_check(dir->i_sb, MEMFS_OP_LOOKUP))
    return static_cast<struct dentry *>(ERR_PTR(error));
  if (dentry->d_name.len > NAME_MAX) return static_cast<struct dentry *>(ERR_PTR(-ENAMETOOLONG));
  if (memfs_s(dir->i_sb)->switches & MEMFS_REVALIDATE) dentry->d_op = &memfs_dops;
  struct memfs_entry *entry = find(dir, dentry);
  if (!entry) {
    d_add(dentry, nullptr);
    return nullptr;
  }
  struct inode *inode = memfs_iget(dir->i_sb, entry->node);
  if (IS_ERR(inode)) return static_cast<struct dentry *>(ERR_PTR(PTR_ERR(inode)));
  return d_splice_alias(inode, dentry);
}

unsigned type_of(umode_t mode) {
  return (mode & S_IFMT) >> 12;
}

// Copies the first entry at or after a position; false at the end.
bool entry_at(struct inode *dir, loff_t position, struct memfs_entry *copy, char *name) {
  struct memfs_sb *info = memfs_s(dir->i_sb);
  struct memfs_entry *entry;
  bool found = false;
  SpinGuard guard(info->lock);
  list_for_each_entry(entry, &memfs_n(dir)->entries, in_dir) {
    if (entry->position < position) continue;
    *copy = *entry;
    memcpy(name, entry->name, entry->length);
    found = true;
    break;
  }
  return found;
}

int list_entries(struct file *file, void *dirent, filldir_t filldir) {
  struct inode *dir = file->f_dentry->d_inode;
  const struct memfs_node *node = memfs_n(dir);
  if (int error = memfs_check(dir->i_sb, MEMFS_OP_READDIR)) return error;
  if (file->f_pos == 0) {
    if (filldir(dirent, ".", 1, 0, node->ino, DT_DIR) < 0) return 0;
    file->f_pos = 1;
  }
  if (file->f_pos == 1) {
    if (filldir(dirent, "..", 2, 1, parent_ino(dir), DT_DIR) < 0) return 0;
    file->f_pos = 2;
  }
  auto *name = static_cast<char *>(kmalloc(NAME_MAX + 1, GFP_KERNEL));
  if (!name) return -ENOMEM;
  struct memfs_entry entry;
  while (entry_at(dir, file->f_pos, &entry, name)) {
    if (filldir(dirent, name, static_cast<int>(entry.length), entry.position, entry.node->ino,
                type_of(entry.node->mode)) < 0)
      break;
    file->f_pos = entry.position + 1;
  }
  kfree(name);
  return 0;
}

// With MEMFS_NFS the position after the last read replaces f_pos, until a seek resets it.
int memfs_readdir(struct file *file, void *dirent, filldir_t filldir) {
  const bool keeps_place = memfs_s(file->f_dentry->d_sb)->switches & MEMFS_NFS;
  if (keeps_place && file->private_data)
    file->f_pos = static_cast<loff_t>(reinterpret_cast<unsigned long>(file->private_data));
  const int rc = list_entries(file, dirent, filldir);
  if (keeps_place)
    file->private_data = reinterpret_cast<void *>(static_cast<unsigned long>(file->f_pos));
  return rc;
}

loff_t memfs_dir_llseek(struct file *file, loff_t offset, int origin) {
  const loff_t from = file->f_pos, to = default_llseek(file, offset, origin);
  if (to >= 0 && to != from) file->private_data = nullptr;
  return to;
}

void *memfs_follow_link(struct dentry *dentry, struct nameidata *nd) {
  if (int error = memfs_check(dentry->d_sb, MEMFS_OP_READLINK)) return ERR_PTR(error);
  nd_set_link(nd, memfs_n(dentry->d_inode)->target);
  return nullptr;
}

}  // namespace

int memfs_getattr(struct vfsmount *, struct dentry *dentry, struct kstat *stat) {
  if (int error = memfs_check(dentry->d_sb, MEMFS_OP_GETATTR)) return error;
  generic_fillattr(dentry->d_inode, stat);
  return 0;
}

int memfs_setattr(struct dentry *dentry, struct iattr *attr) {
  struct inode *inode = dentry->d_inode;
  if (int error = memfs_check(dentry->d_sb, MEMFS_OP_SETATTR)) return error;
  if (int error = inode_change_ok(inode, attr)) return error;
  return inode_setattr(inode, attr);
}

#define MEMFS_XATTR_OPS                                                                 \
  .setxattr = memfs_setxattr, .getxattr = memfs_getxattr, .listxattr = memfs_listxattr, \
  .removexattr = memfs_removexattr

#define MEMFS_DIR_OPS                                                                         \
  .create = memfs_create, .lookup = memfs_lookup, .link = memfs_link, .unlink = memfs_unlink, \
  .symlink = memfs_symlink, .mkdir = memfs_mkdir, .rmdir = memfs_rmdir, .mknod = memfs_mknod, \
  .rename = memfs_rename, .setattr = memfs_setattr, .getattr = memfs_getattr

#define MEMFS_LINK_OPS                                                                      \
  .readlink = generic_readlink, .follow_link = memfs_follow_link, .setattr = memfs_setattr, \
  .getattr = memfs_getattr

#define MEMFS_DIR_FOPS \
  .llseek = memfs_dir_llseek, .read = generic_read_dir, .readdir = memfs_readdir, .open = memfs_open

struct inode_operations memfs_dir_iops[2] = {{MEMFS_DIR_OPS, MEMFS_XATTR_OPS}, {MEMFS_DIR_OPS}};
struct inode_operations memfs_symlink_iops[2] = {{MEMFS_LINK_OPS, MEMFS_XATTR_OPS},
                                                 {MEMFS_LINK_OPS}};
const struct file_operations memfs_dir_fops[2] = {{MEMFS_DIR_FOPS, .fsync = memfs_fsync},
                                                  {MEMFS_DIR_FOPS}};
