// SPDX-License-Identifier: GPL-2.0
// hostfs: the path descriptors of inodes.
//
// The hosting program references directories for a long time, for instance every ancestor of a
// program's current directory, and files for as long as its own host remembers their names. So the
// descriptor of an idle directory may be closed; a file handle reopens the same directory. So it is
// with regular files that are not open, but for the first ones: these would pay for their handles
// without need. Where the host has no file handles, and for all other kinds of objects, the
// descriptor stays open.
#include "ukern/fs/hostfs_internal.h"
#include "ukern/fs/hostfs.h"

#include <linux/list.h>
#include <linux/mutex.h>
#include <linux/slab.h>
#include <linux/string.h>

#include "ukern/sync/guard.h"

// One mount of a host file system, for reopening its directories. Lives as long as an inode of one
// of them.
struct hostfs_origin {
  struct list_head all;  // under origins_mutex, like the next
  unsigned long inodes;
  unsigned long long dev, mount;
  int fd;  // from host_fs_origin; negative: descriptors stay open
};

namespace {

LIST_HEAD(origins);
DEFINE_MUTEX(origins_mutex);

DEFINE_SPINLOCK(idle_lock);
LIST_HEAD(idle_inodes);  // with an open but unused descriptor, most recently used first
unsigned long nr_idle;
unsigned long idle_limit;

atomic_t nr_pinned;  // directories whose descriptor stays open
atomic_t nr_kept;    // regular files whose descriptor stays open
unsigned long kept_limit;

bool can_reopen(const hostfs_inode *info) {
  return info->origin && !info->pinned;
}

// Only a directory can begin an origin.
hostfs_origin *get_origin(int fd, const struct uk_stat *stat) {
  hostfs_origin *origin;
  MutexGuard guard(origins_mutex);
  list_for_each_entry(origin, &origins, all) {
    if (origin->dev == stat->dev && origin->mount == stat->mount) {
      origin->inodes++;
      return origin;
    }
  }
  if (!S_ISDIR(stat->mode)) return nullptr;
  origin = static_cast<hostfs_origin *>(kmalloc(sizeof(hostfs_origin), GFP_KERNEL));
  if (origin) {
    origin->inodes = 1;
    origin->dev = stat->dev;
    origin->mount = stat->mount;
    origin->fd = host_fs_origin(fd);
    list_add(&origin->all, &origins);
  }
  return origin;
}

void put_origin(hostfs_origin *origin) {
  {
    MutexGuard guard(origins_mutex);
    if (--origin->inodes) return;
    list_del(&origin->all);
  }
  if (origin->fd >= 0) host_fs_close(origin->fd);
  kfree(origin);
}

void set_gone(hostfs_inode *info) {
  __atomic_store_n(&info->gone, 1, __ATOMIC_RELAXED);
}

int get_open_fd_locked(hostfs_inode *info) {
  if (info->fd < 0) return -ENOENT;
  if (info->users++ == 0) {
    list_del_init(&info->idle);
    nr_idle--;
  }
  return info->fd;
}

int get_open_fd(hostfs_inode *info) {
  SpinGuard guard(idle_lock);
  return get_open_fd_locked(info);
}

// Makes `fd` the inode's descriptor, in use. If it has got another one meanwhile, closes `fd` and
// returns the other.
int install_fd(hostfs_inode *info, int fd) {
  int old;
  {
    SpinGuard guard(idle_lock);
    old = get_open_fd_locked(info);
    if (old < 0) {
      info->fd = fd;
      info->users = 1;
      return fd;
    }
  }
  host_fs_close(fd);
  return old;
}

int reopen(hostfs_inode *info) {
  if (__atomic_load_n(&info->removed, __ATOMIC_RELAXED)) return -ENOENT;
  if (__atomic_load_n(&info->gone, __ATOMIC_RELAXED)) return -ESTALE;
  const int fd = host_fs_reopen(info->origin->fd, &info->handle);
  if (fd < 0) {
    if (fd == -ESTALE) set_gone(info);
    return fd;
  }
  struct uk_stat stat;
  int error = host_fs_stat(fd, &stat);
  if (!error && !hostfs_same_object(&info->vfs_inode, &stat)) error = -ESTALE;
  if (!error) return install_fd(info, fd);
  host_fs_close(fd);
  return error;
}

// Closes the least recently used descriptors over the limit.
void close_idle() {
  for (;;) {
    int fd = -1;
    {
      SpinGuard guard(idle_lock);
      if (nr_idle > idle_limit) {
        hostfs_inode *oldest = list_entry(idle_inodes.prev, hostfs_inode, idle);
        list_del_init(&oldest->idle);
        nr_idle--;
        fd = oldest->fd;
        oldest->fd = -1;
      }
    }
    if (fd < 0) return;
    host_fs_close(fd);
  }
}

}  // namespace

// Whether the regular file is one of the first ones.
static bool keep_file(hostfs_inode *info) {
  if (static_cast<unsigned long>(atomic_read(&nr_kept)) >=
      __atomic_load_n(&kept_limit, __ATOMIC_RELAXED))
    return false;
  atomic_inc(&nr_kept);
  info->kept = 1;
  return true;
}

int hostfs_get_fd(struct inode *inode, enum hostfs_get_how how) {
  hostfs_inode *info = hostfs_i(inode);
  if (!can_reopen(info)) return info->fd;
  const int fd = get_open_fd(info);
  return fd >= 0 || how == HOSTFS_IF_OPEN ? fd : reopen(info);
}

void hostfs_put_fd(struct inode *inode) {
  hostfs_inode *info = hostfs_i(inode);
  if (!can_reopen(info)) return;
  bool too_many = false;
  {
    SpinGuard guard(idle_lock);
    if (--info->users == 0) {
      list_add(&info->idle, &idle_inodes);
      too_many = ++nr_idle > idle_limit;
    }
  }
  if (too_many) close_idle();
}

void hostfs_init_fd(struct inode *inode, const struct uk_stat *stat) {
  hostfs_inode *info = hostfs_i(inode);
  const bool directory = S_ISDIR(stat->mode);
  if (!directory && (!S_ISREG(stat->mode) || keep_file(info))) return;
  info->users = 1;
  info->origin = get_origin(info->fd, stat);  // without memory the descriptor stays open
  info->pinned = !info->origin || info->origin->fd < 0 || host_fs_handle(info->fd, &info->handle);
  if (info->pinned && directory) atomic_inc(&nr_pinned);
}

int hostfs_adopt_fd(struct inode *inode, int fd) {
  hostfs_inode *info = hostfs_i(inode);
  // An open descriptor protects the number from reuse.
  const int own = hostfs_get_fd(inode, HOSTFS_IF_OPEN);
  if (own >= 0) {
    hostfs_put_fd(inode);
    host_fs_close(fd);
    return 1;
  }
  struct host_handle handle;
  if (host_fs_handle(fd, &handle) || memcmp(&handle, &info->handle, sizeof handle)) {
    set_gone(info);
    return 0;
  }
  install_fd(info, fd);
  hostfs_put_fd(inode);
  return 1;
}

void hostfs_close(struct inode *inode) {
  hostfs_inode *info = hostfs_i(inode);
  if (can_reopen(info)) {
    SpinGuard guard(idle_lock);
    if (info->fd >= 0) {
      list_del_init(&info->idle);
      nr_idle--;
    }
  }
  if (info->fd >= 0) host_fs_close(info->fd);
  if (info->origin) put_origin(info->origin);
  if (info->pinned && S_ISDIR(inode->i_mode)) atomic_dec(&nr_pinned);
  if (info->kept) atomic_dec(&nr_kept);
}

void hostfs_set_idle_inodes(unsigned long idle, unsigned long kept) {
  {
    SpinGuard guard(idle_lock);
    idle_limit = idle;
    __atomic_store_n(&kept_limit, kept, __ATOMIC_RELAXED);
  }
  close_idle();
}

unsigned long hostfs_pinned_directories(void) {
  return static_cast<unsigned long>(atomic_read(&nr_pinned));
}
