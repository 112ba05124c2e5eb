// SPDX-License-Identifier: GPL-2.0
// memfs: the file system type, mounting and the test switches.
#include "ukern/fs/memfs_internal.h"

#include <linux/err.h>
#include <linux/mount.h>
#include <linux/seq_file.h>
#include <linux/slab.h>
#include <linux/statfs.h>
#include <linux/string.h>
#include <linux/swap.h>
#include <linux/writeback.h>

#include "ukern/fs/fs_types.h"
#include "ukern/sync/guard.h"

namespace {

constexpr long kMagic = 0x6d656d66;
constexpr long kNfsMagic = 0x6969;

struct option {
  const char *name;
  unsigned value;
};
constexpr option kOptions[] = {
    {"noxattr", MEMFS_NO_XATTR},      {"nofsync", MEMFS_NO_FSYNC}, {"nodirect", MEMFS_NO_DIRECT},
    {"revalidate", MEMFS_REVALIDATE}, {"nfs", MEMFS_NFS},          {"queue", MEMFS_QUEUE},
    {"short", MEMFS_SHORT_DIRECT},
};

// Parses a number with an optional unit; -1: not a number, or trailing text.
long long parse_size(const char *text, const char *end) {
  long long value = 0;
  const char *p = text;
  for (; p < end && *p >= '0' && *p <= '9'; p++) value = value * 10 + (*p - '0');
  if (p == text) return -1;
  if (p < end) {
    const int shift = *p == 'k' ? 10 : *p == 'm' ? 20 : *p == 'g' ? 30 : -1;
    if (shift < 0 || p + 1 != end) return -1;
    value <<= shift;
  }
  return value;
}

bool parse_option(struct memfs_sb *info, const char *text, const char *end) {
  const auto length = static_cast<size_t>(end - text);
  for (const option &known : kOptions) {
    if (strlen(known.name) != length || memcmp(known.name, text, length) != 0) continue;
    info->switches |= known.value;
    return true;
  }
  if (length < 5 || memcmp(text, "size=", 5) != 0) return false;
  const long long size = parse_size(text + 5, end);
  info->capacity = static_cast<unsigned long>(size) >> PAGE_SHIFT;
  return size >= 0;
}

int parse_options(struct memfs_sb *info, const char *text) {
  while (text && *text) {
    const char *end = text;
    while (*end && *end != ',') end++;
    if (end != text && !parse_option(info, text, end)) return -EINVAL;
    text = *end ? end + 1 : end;
  }
  return 0;
}

int memfs_statfs(struct dentry *dentry, struct kstatfs *buf) {
  struct super_block *sb = dentry->d_sb;
  struct memfs_sb *info = memfs_s(sb);
  if (int error = memfs_check(sb, MEMFS_OP_STATFS)) return error;
  buf->f_type = static_cast<long>(sb->s_magic);
  buf->f_bsize = PAGE_SIZE;
  buf->f_frsize = PAGE_SIZE;
  buf->f_namelen = NAME_MAX;
  {
    SpinGuard guard(info->lock);
    buf->f_blocks = info->capacity ? info->capacity : totalram_pages;
    buf->f_bfree = buf->f_blocks > info->used ? buf->f_blocks - info->used : 0;
    buf->f_files = info->nr_nodes + buf->f_bfree;
    buf->f_ffree = buf->f_bfree;
  }
  buf->f_bavail = buf->f_bfree;
  return 0;
}

int memfs_show_options(struct seq_file *seq, struct vfsmount *mnt) {
  const struct memfs_sb *info = memfs_s(mnt->mnt_sb);
  for (const option &known : kOptions)
    if (info->switches & known.value) seq_printf(seq, ",%s", known.name);
  if (info->capacity) seq_printf(seq, ",size=%lu", info->capacity << PAGE_SHIFT);
  return 0;
}

void memfs_delete_inode(struct inode *inode) {
  struct super_block *sb = inode->i_sb;
  struct memfs_node *node = memfs_n(inode);
  truncate_inode_pages(inode->i_mapping, 0);
  clear_inode(inode);
  memfs_free_node(sb, node);
}

int memfs_remount(struct super_block *, int *, char *) {
  return 0;
}

struct super_operations memfs_sops = {
    .write_inode = memfs_write_inode,
    .drop_inode = generic_drop_inode,
    .delete_inode = memfs_delete_inode,
    .statfs = memfs_statfs,
    .remount_fs = memfs_remount,
    .show_options = memfs_show_options,
};

void set_magic(struct super_block *sb, unsigned switches) {
  sb->s_magic = switches & MEMFS_NFS ? kNfsMagic : kMagic;
}

struct memfs_sb *new_info() {
  auto *info = static_cast<struct memfs_sb *>(kzalloc(sizeof(struct memfs_sb), GFP_KERNEL));
  if (!info) return nullptr;
  spin_lock_init(&info->lock);
  INIT_LIST_HEAD(&info->nodes);
  INIT_LIST_HEAD(&info->queued);
  init_waitqueue_head(&info->queued_wait);
  for (struct hlist_head &chain : info->names) INIT_HLIST_HEAD(&chain);
  info->next_ino = 1;
  info->revalidate = 1;
  info->bdi.ra_pages = VM_MAX_READAHEAD * 1024 / PAGE_CACHE_SIZE;
  info->bdi.capabilities = BDI_CAP_MAP_COPY;
  info->bdi.unplug_io_fn = default_unplug_io_fn;
  return info;
}

int memfs_fill_super(struct super_block *sb, void *data, int) {
  struct memfs_sb *info = new_info();
  if (!info) return -ENOMEM;
  sb->s_fs_info = info;  // freed by kill_sb
  if (int error = parse_options(info, static_cast<const char *>(data))) return error;
  sb->s_op = &memfs_sops;
  sb->s_maxbytes = MAX_LFS_FILESIZE;
  sb->s_blocksize = PAGE_CACHE_SIZE;
  sb->s_blocksize_bits = PAGE_CACHE_SHIFT;
  sb->s_time_gran = 1;
  set_magic(sb, info->switches);

  struct memfs_node *node = memfs_new_node(sb, S_IFDIR | 0755, 0);
  if (!node) return -ENOMEM;
  node->parent = node;
  struct inode *root = memfs_iget(sb, node);
  if (IS_ERR(root)) return static_cast<int>(PTR_ERR(root));
  sb->s_root = d_alloc_root(root);
  if (sb->s_root) return 0;
  iput(root);
  return -ENOMEM;
}

int memfs_get_sb(struct file_system_type *type, int flags, const char *, void *data,
                 struct vfsmount *mnt) {
  return get_sb_nodev(type, flags, data, memfs_fill_super, mnt);
}

void free_all(struct super_block *sb, struct memfs_sb *info) {
  for (struct hlist_head &chain : info->names) {
    while (!hlist_empty(&chain)) {
      struct memfs_entry *entry = hlist_entry(chain.first, struct memfs_entry, by_name);
      hlist_del(&entry->by_name);
      kfree(entry);
    }
  }
  while (!list_empty(&info->nodes))
    memfs_free_node(sb, list_entry(info->nodes.next, struct memfs_node, all));
  kfree(info);
}

void memfs_kill_sb(struct super_block *sb) {
  struct memfs_sb *info = memfs_s(sb);
  kill_anon_super(sb);  // the inodes go before the nodes
  if (info) free_all(sb, info);
}

struct file_system_type memfs_type = {
    .name = "memfs",
    .get_sb = memfs_get_sb,
    .kill_sb = memfs_kill_sb,
    .owner = THIS_MODULE,
};

}  // namespace

int memfs_check(struct super_block *sb, enum memfs_op op) {
  struct memfs_sb *info = memfs_s(sb);
  int error = 0;
  SpinGuard guard(info->lock);
  struct memfs_failure *failure = &info->failures[op];
  failure->calls++;
  if (failure->times) {
    error = failure->error;
    if (failure->times > 0) failure->times--;
  }
  return error;
}

void memfs_set_switches(struct super_block *sb, unsigned switches) {
  memfs_s(sb)->switches = switches;
  set_magic(sb, switches);
  struct inode *inode;
  SpinGuard guard(inode_lock);
  list_for_each_entry(inode, &sb->s_inodes, i_sb_list) memfs_set_operations(inode);
}

void memfs_set_revalidate(struct super_block *sb, int result) {
  memfs_s(sb)->revalidate = result;
}

void memfs_set_capacity(struct super_block *sb, unsigned long long bytes) {
  struct memfs_sb *info = memfs_s(sb);
  SpinGuard guard(info->lock);
  info->capacity = static_cast<unsigned long>(bytes >> PAGE_SHIFT);
}

void memfs_fail(struct super_block *sb, enum memfs_op op, int error, int times) {
  struct memfs_sb *info = memfs_s(sb);
  SpinGuard guard(info->lock);
  info->failures[op].error = error;
  info->failures[op].times = times;
}

unsigned long memfs_calls(struct super_block *sb, enum memfs_op op) {
  struct memfs_sb *info = memfs_s(sb);
  SpinGuard guard(info->lock);
  return info->failures[op].calls;
}

int memfs_init(void) {
  return register_filesystem(&memfs_type);
}

void memfs_exit(void) {
  unregister_filesystem(&memfs_type);
}
