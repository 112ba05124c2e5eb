// SPDX-License-Identifier: GPL-2.0
// hostfs: the file system type, its super blocks and inodes.
#include "ukern/fs/hostfs_internal.h"

#include <linux/backing-dev.h>
#include <linux/err.h>
#include <linux/hash.h>
#include <linux/mount.h>
#include <linux/pagemap.h>
#include <linux/slab.h>
#include <linux/statfs.h>
#include <linux/string.h>

#include "ukern/fs/fs_types.h"
#include "ukern/fs/hostfs.h"
#include "ukern/sync/guard.h"
#include "ukern/vfs/vfs.h"

namespace {

// NFS's: tells a layer above that files change behind its back, so that it reads them here each
// time instead of caching pages.
constexpr long kMagic = 0x6969;

struct kmem_cache *inode_cache;

// No page is ever dirty: writes go straight to the host.
struct backing_dev_info hostfs_bdi;

// Number of inodes without a name, and the time of the last removal of a name.
atomic_t nr_removed;
unsigned long removed_at;
constexpr unsigned long kFreeDelay = HZ / 10;  // an unused inode has been freed by then

struct object {
  struct uk_stat stat;
  int fd;
};

int same_object(struct inode *inode, void *data) {
  return hostfs_same_object(inode, &static_cast<const object *>(data)->stat);
}

int set_object(struct inode *inode, void *data) {
  const auto *wanted = static_cast<const object *>(data);
  hostfs_i(inode)->dev = wanted->stat.dev;
  hostfs_i(inode)->ino = wanted->stat.ino;
  hostfs_i(inode)->mount = wanted->stat.mount;
  hostfs_i(inode)->fd = wanted->fd;
  inode->i_ino = wanted->stat.ino;
  return 0;
}

struct timespec time_from(const struct uk_time &time) {
  struct timespec ts;
  ts.tv_sec = time.sec;
  ts.tv_nsec = time.nsec;
  return ts;
}

void set_operations(struct inode *inode, const struct uk_stat &stat) {
  const umode_t mode = static_cast<umode_t>(stat.mode);
  inode->i_op = &hostfs_file_iops;
  if (S_ISDIR(mode)) {
    inode->i_op = &hostfs_dir_iops;
    inode->i_fop = &hostfs_dir_fops;
  } else if (S_ISLNK(mode)) {
    inode->i_op = &hostfs_symlink_iops;
  } else if (S_ISREG(mode)) {
    inode->i_fop = &hostfs_file_fops;
    inode->i_mapping->a_ops = &hostfs_aops;
  } else {
    init_special_inode(inode, mode, new_decode_dev(static_cast<u32>(stat.rdev)));
  }
  inode->i_mapping->backing_dev_info = &hostfs_bdi;
}

struct inode *hostfs_alloc_inode(struct super_block *) {
  auto *info = static_cast<struct hostfs_inode *>(kmem_cache_alloc(inode_cache, GFP_KERNEL));
  if (!info) return nullptr;
  info->fd = info->created_fd = -1;
  info->removed = info->gone = info->pinned = 0;
  info->origin = nullptr;
  info->users = 0;
  INIT_LIST_HEAD(&info->idle);
  info->dev = info->ino = info->mount = 0;
  info->attributes_of = info->granted = 0;
  inode_init_once(&info->vfs_inode);
  return &info->vfs_inode;
}

void hostfs_destroy_inode(struct inode *inode) {
  hostfs_close(inode);
  if (hostfs_i(inode)->created_fd >= 0) host_fs_close(hostfs_i(inode)->created_fd);
  if (hostfs_i(inode)->removed) atomic_dec(&nr_removed);
  kmem_cache_free(inode_cache, hostfs_i(inode));
}

int hostfs_statfs(struct dentry *dentry, struct kstatfs *buf) {
  const hostfs_held held(dentry->d_inode);
  if (held.fd() < 0) return held.fd();
  struct uk_statfs host;
  if (int error = host_fs_statfs(held.fd(), &host)) return error;
  buf->f_type = host.type;
  buf->f_bsize = host.bsize;
  buf->f_blocks = host.blocks;
  buf->f_bfree = host.bfree;
  buf->f_bavail = host.bavail;
  buf->f_files = host.files;
  buf->f_ffree = host.ffree;
  memcpy(&buf->f_fsid, &host.fsid, sizeof buf->f_fsid);
  buf->f_namelen = host.namelen;
  buf->f_frsize = host.frsize;
  return 0;
}

struct super_operations hostfs_sops = {
    .alloc_inode = hostfs_alloc_inode,
    .destroy_inode = hostfs_destroy_inode,
    // An inode's descriptor pins an object on the host, so an unused inode is not cached.
    .drop_inode = generic_delete_inode,
    .statfs = hostfs_statfs,
};

int hostfs_fill_super(struct super_block *sb, void *data, int) {
  const auto *source = static_cast<const char *>(data);
  sb->s_op = &hostfs_sops;
  sb->s_magic = kMagic;
  sb->s_maxbytes = MAX_LFS_FILESIZE;
  sb->s_blocksize = PAGE_CACHE_SIZE;
  sb->s_blocksize_bits = PAGE_CACHE_SHIFT;
  sb->s_time_gran = 1;
  sb->s_flags |= MS_NOATIME | MS_NODIRATIME;  // the host keeps access times

  const int fd = host_fs_root(source);
  if (fd < 0) return fd;
  struct inode *root = hostfs_iget(sb, fd);
  if (IS_ERR(root)) return static_cast<int>(PTR_ERR(root));
  sb->s_root = d_alloc_root(root);
  if (!sb->s_root) {
    iput(root);
    return -ENOMEM;
  }
  sb->s_root->d_op = &hostfs_dops;
  return 0;
}

int hostfs_get_sb(struct file_system_type *type, int flags, const char *dev_name, void *,
                  struct vfsmount *mnt) {
  if (!dev_name || !*dev_name) return -EINVAL;
  return get_sb_nodev(type, flags, const_cast<char *>(dev_name), hostfs_fill_super, mnt);
}

struct file_system_type hostfs_type = {
    .name = "hostfs",
    .get_sb = hostfs_get_sb,
    .kill_sb = kill_anon_super,
    .owner = THIS_MODULE,
};

}  // namespace

void hostfs_apply_stat(struct inode *inode, const struct uk_stat *stat) {
  {
    SpinGuard guard(inode->i_lock);
    inode->i_mode = static_cast<umode_t>(stat->mode);
    inode->i_nlink = stat->nlink;
    inode->i_uid = stat->uid;
    inode->i_gid = stat->gid;
    inode->i_rdev = new_decode_dev(static_cast<u32>(stat->rdev));
    i_size_write(inode, static_cast<loff_t>(stat->size));
    inode->i_blocks = stat->blocks;
    inode->i_blksize = stat->blksize;
    inode->i_atime = time_from(stat->atime);
    inode->i_mtime = time_from(stat->mtime);
    inode->i_ctime = time_from(stat->ctime);
  }
  request_stamp(&current->request, &hostfs_i(inode)->attributes_of);
}

int hostfs_refresh(struct inode *inode) {
  const hostfs_held held(inode);
  // A directory that was removed through this mount keeps its attributes when its descriptor is
  // closed.
  if (held.fd() == -ENOENT && hostfs_i(inode)->removed) return 0;
  if (held.fd() < 0) return held.fd();
  struct uk_stat stat;
  if (int error = host_fs_stat(held.fd(), &stat)) return error;
  hostfs_apply_stat(inode, &stat);
  return 0;
}

int hostfs_refresh_once(struct inode *inode) {
  return request_knows(&current->request, &hostfs_i(inode)->attributes_of) ? 0
                                                                           : hostfs_refresh(inode);
}

struct inode *hostfs_iget(struct super_block *sb, int fd) {
  object wanted = {{}, fd};
  if (int error = host_fs_stat(fd, &wanted.stat)) {
    host_fs_close(fd);
    return static_cast<struct inode *>(ERR_PTR(error));
  }
  const unsigned long hash = hash_long(wanted.stat.ino ^ wanted.stat.dev << 32, BITS_PER_LONG);
  for (;;) {
    struct inode *inode = iget5_locked(sb, hash, same_object, set_object, &wanted);
    if (!inode) {
      host_fs_close(fd);
      return static_cast<struct inode *>(ERR_PTR(-ENOMEM));
    }
    const bool is_new = inode->i_state & I_NEW;
    if (is_new) {
      set_operations(inode, wanted.stat);
      hostfs_init_fd(inode, &wanted.stat);
    } else if (!hostfs_adopt_fd(inode, fd)) {
      iput(inode);
      continue;
    }
    hostfs_apply_stat(inode, &wanted.stat);
    if (is_new) {
      unlock_new_inode(inode);
      hostfs_put_fd(inode);
    }
    return inode;
  }
}

void hostfs_note_removed(struct inode *inode) {
  __atomic_store_n(&removed_at, jiffies, __ATOMIC_RELAXED);
  if (inode->i_nlink == 0 && !__atomic_exchange_n(&hostfs_i(inode)->removed, 1, __ATOMIC_RELAXED))
    atomic_inc(&nr_removed);
}

int hostfs_wait_for_room(void) {
  if (time_after(jiffies, __atomic_load_n(&removed_at, __ATOMIC_RELAXED) + kFreeDelay)) return 0;
  const int before = atomic_read(&nr_removed);
  schedule_timeout_uninterruptible(1);
  return before > 0;
}

// Each cached inode may have a descriptor and each open file another. Of the host's limit, an
// eighth is for unused cached inodes, of which there may briefly be twice as many; an eighth is for
// idle open files, a sixteenth for idle directories and files that can be reopened, and an eighth
// for files that keep theirs.
static void share_descriptors(long descriptors) {
  if (descriptors < 256) descriptors = 256;
  if (descriptors / 8 < ukern_cache_limit) set_cache_limit(static_cast<unsigned>(descriptors) / 8);
  hostfs_set_idle_files(static_cast<unsigned long>(descriptors) / 8);
  hostfs_set_idle_inodes(static_cast<unsigned long>(descriptors) / 16,
                         static_cast<unsigned long>(descriptors) / 8);
}

int hostfs_init(void) {
  share_descriptors(host_fs_start());
  hostfs_bdi = {};
  hostfs_bdi.capabilities = BDI_CAP_NO_ACCT_DIRTY | BDI_CAP_NO_WRITEBACK | BDI_CAP_MAP_COPY;
  inode_cache =
      kmem_cache_create("hostfs_inode_cache", sizeof(struct hostfs_inode), 0, 0, nullptr, nullptr);
  if (!inode_cache) return -ENOMEM;
  const int error = register_filesystem(&hostfs_type);
  if (error) kmem_cache_destroy(inode_cache);
  return error;
}

void hostfs_exit(void) {
  unregister_filesystem(&hostfs_type);
  kmem_cache_destroy(inode_cache);
  inode_cache = nullptr;
}
