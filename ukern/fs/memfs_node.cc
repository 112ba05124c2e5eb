// SPDX-License-Identifier: GPL-2.0
// memfs: nodes, their inodes and their blocks.
#include "ukern/fs/memfs_internal.h"

#include <linux/err.h>
#include <linux/hash.h>
#include <linux/slab.h>

#include "ukern/sync/guard.h"

namespace {

int same_node(struct inode *inode, void *node) {
  return memfs_n(inode) == node;
}

int set_node(struct inode *inode, void *data) {
  auto *node = static_cast<struct memfs_node *>(data);
  inode->u.generic_ip = node;
  inode->i_ino = node->ino;
  return 0;
}

void fill_inode(struct inode *inode, const struct memfs_node *node) {
  inode->i_mode = node->mode;
  inode->i_nlink = node->nlink;
  inode->i_uid = node->uid;
  inode->i_gid = node->gid;
  inode->i_atime = node->atime;
  inode->i_mtime = node->mtime;
  inode->i_ctime = node->ctime;
  inode->i_blksize = PAGE_CACHE_SIZE;
  inode->i_blocks = node->nr_blocks << (PAGE_SHIFT - 9);
  i_size_write(inode, node->size);
  inode->i_mapping->backing_dev_info = &memfs_s(inode->i_sb)->bdi;
  if (special_file(node->mode)) init_special_inode(inode, node->mode, node->rdev);
  memfs_set_operations(inode);
}

// Frees the blocks from `first` on.
void free_blocks(struct memfs_sb *info, struct memfs_node *node, unsigned long first) {
  for (;;) {
    void *found[16];
    unsigned count = 0;
    {
      SpinGuard guard(info->lock);
      count = radix_tree_gang_lookup(&node->blocks, found, first, ARRAY_SIZE(found));
      for (unsigned i = 0; i < count; i++)
        radix_tree_delete(&node->blocks, static_cast<struct page *>(found[i])->index);
      node->nr_blocks -= count;
      info->used -= count;
    }
    if (!count) return;
    for (unsigned i = 0; i < count; i++) put_page(static_cast<struct page *>(found[i]));
  }
}

// Charges one block to the capacity. The lock is held.
bool charge_locked(struct memfs_sb *info) {
  if (info->capacity && info->used >= info->capacity) return false;
  info->used++;
  return true;
}

}  // namespace

struct memfs_node *memfs_new_node(struct super_block *sb, umode_t mode, dev_t rdev) {
  struct memfs_sb *info = memfs_s(sb);
  auto *node = static_cast<struct memfs_node *>(kzalloc(sizeof(struct memfs_node), GFP_KERNEL));
  if (!node) return nullptr;
  node->mode = mode;
  node->nlink = S_ISDIR(mode) ? 2 : 1;
  node->uid = current->fsuid;
  node->gid = current->fsgid;
  node->rdev = rdev;
  node->atime = node->mtime = node->ctime = current_fs_time(sb);
  node->next_position = 2;  // behind "." and ".."
  INIT_LIST_HEAD(&node->entries);
  INIT_LIST_HEAD(&node->xattrs);
  INIT_RADIX_TREE(&node->blocks, GFP_ATOMIC);
  SpinGuard guard(info->lock);
  node->ino = info->next_ino++;
  info->nr_nodes++;
  list_add_tail(&node->all, &info->nodes);
  return node;
}

void memfs_free_node(struct super_block *sb, struct memfs_node *node) {
  struct memfs_sb *info = memfs_s(sb);
  free_blocks(info, node, 0);
  {
    SpinGuard guard(info->lock);
    list_del(&node->all);
    info->nr_nodes--;
  }
  memfs_free_xattrs(node);
  kfree(node->target);
  kfree(node);
}

struct inode *memfs_iget(struct super_block *sb, struct memfs_node *node) {
  const unsigned long hash = hash_long(node->ino, BITS_PER_LONG);
  struct inode *inode = iget5_locked(sb, hash, same_node, set_node, node);
  if (!inode) return static_cast<struct inode *>(ERR_PTR(-ENOMEM));
  if (inode->i_state & I_NEW) {
    fill_inode(inode, node);
    unlock_new_inode(inode);
  }
  return inode;
}

void memfs_set_operations(struct inode *inode) {
  const unsigned switches = memfs_s(inode->i_sb)->switches;
  const int no_xattr = (switches & MEMFS_NO_XATTR) != 0;
  const int no_fsync = (switches & MEMFS_NO_FSYNC) != 0;
  if (S_ISDIR(inode->i_mode)) {
    inode->i_op = &memfs_dir_iops[no_xattr];
    inode->i_fop = &memfs_dir_fops[no_fsync];
  } else if (S_ISLNK(inode->i_mode)) {
    inode->i_op = &memfs_symlink_iops[no_xattr];
  } else {
    inode->i_op = &memfs_file_iops[no_xattr];
  }
  if (S_ISREG(inode->i_mode)) {
    inode->i_fop = &memfs_file_fops[no_fsync];
    inode->i_mapping->a_ops = &memfs_aops[(switches & MEMFS_NO_DIRECT) != 0];
  }
}

int memfs_write_inode(struct inode *inode, int) {
  struct memfs_node *node = memfs_n(inode);
  node->mode = inode->i_mode;
  node->nlink = inode->i_nlink;
  node->uid = inode->i_uid;
  node->gid = inode->i_gid;
  node->size = i_size_read(inode);
  node->atime = inode->i_atime;
  node->mtime = inode->i_mtime;
  node->ctime = inode->i_ctime;
  return 0;
}

struct page *memfs_block(struct inode *inode, unsigned long index, int make) {
  struct memfs_sb *info = memfs_s(inode->i_sb);
  struct memfs_node *node = memfs_n(inode);
  {
    SpinGuard guard(info->lock);
    auto *block = static_cast<struct page *>(radix_tree_lookup(&node->blocks, index));
    if (block) get_page(block);
    if (block || !make) return block;
    if (!charge_locked(info)) return static_cast<struct page *>(ERR_PTR(-ENOSPC));
  }

  struct page *block = alloc_page(GFP_NOFS | __GFP_ZERO);
  struct page *other = nullptr;
  int error = block ? 0 : -ENOMEM;
  {
    SpinGuard guard(info->lock);
    if (block) {
      block->index = index;
      error = radix_tree_insert(&node->blocks, index, block);
      if (!error) get_page(block);
      if (error == -EEXIST)
        other = static_cast<struct page *>(radix_tree_lookup(&node->blocks, index));
    }
    if (other) get_page(other);
    if (error)
      info->used--;
    else
      inode->i_blocks = ++node->nr_blocks << (PAGE_SHIFT - 9);
  }
  if (!error) return block;
  if (block) __free_page(block);
  return other ? other : static_cast<struct page *>(ERR_PTR(error));
}

void memfs_touch(struct inode *inode) {
  inode->i_mtime = inode->i_ctime = current_fs_time(inode->i_sb);
  mark_inode_dirty(inode);
}

void memfs_truncate(struct inode *inode) {
  struct memfs_node *node = memfs_n(inode);
  const auto size = static_cast<unsigned long>(i_size_read(inode));
  if (size & ~PAGE_MASK) {
    if (struct page *block = memfs_block(inode, size >> PAGE_SHIFT, 0)) {
      const auto from = static_cast<unsigned>(size & ~PAGE_MASK);
      memclear_highpage_flush(block, from, static_cast<unsigned>(PAGE_SIZE) - from);
      put_page(block);
    }
  }
  free_blocks(memfs_s(inode->i_sb), node, (size + PAGE_SIZE - 1) >> PAGE_SHIFT);
  inode->i_blocks = node->nr_blocks << (PAGE_SHIFT - 9);
  memfs_touch(inode);
}
