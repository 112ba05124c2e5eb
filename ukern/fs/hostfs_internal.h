/* SPDX-License-Identifier: GPL-2.0 */
/*
 * hostfs: a directory of the host and all below it as a file system. The host may change anything
 * behind our back, so every use checks with the host, except for a dentry with a mount on it.
 *
 * An inode stands for one object of the host as reached through one mount of the host, identified
 * by (st_dev, st_ino, mount). It owns a path descriptor, which protects the object's number from
 * reuse. An open file owns a data descriptor.
 *
 * A directory or a regular file may be referenced for a long time. If the host can reopen it by a
 * file handle, which no other object ever shares, its path descriptor is closed when it is the
 * least recently used, and reopened at the next use (hostfs_held.cc).
 *
 * Calls that the host checks by identity use the current task's fsuid, fsgid and groups. Data is
 * opened as the hosting program itself, because the caller's permission has been checked before.
 */
#ifndef UKERN_FS_HOSTFS_INTERNAL_H
#define UKERN_FS_HOSTFS_INTERNAL_H

#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/sched.h>

#include "ukern/host/host_fs.h"

#ifdef __cplusplus
extern "C" {
#endif

struct hostfs_origin; /* a host mount with cached directories */

struct hostfs_inode {
  struct inode vfs_inode;
  unsigned long long dev, ino, mount;
  int fd; /* the path descriptor; -1: closed, of an object that can be reopened */
  /* Of directories and regular files. kept: a file without these. origin and handle reopen it and
   * do not change; pinned: it cannot be reopened. hostfs_held.cc manages these, the next two and
   * fd. */
  struct hostfs_origin *origin;
  struct host_handle handle;
  int pinned, kept;
  unsigned users;
  struct list_head idle;
  int gone;       /* the object is gone; the host may have given its number to another */
  int created_fd; /* data descriptor from the creation, for its open; or -1 */
  int removed;    /* its last name was removed through this mount */
  /* Stamps of requests (<asm/request.h>): of the last refresh of the attributes (a dentry's d_time:
   * of its last revalidation), and of the last grant of rights by the host, with the mask. */
  unsigned long attributes_of, granted;
};

static inline struct hostfs_inode *hostfs_i(const struct inode *inode) {
  return container_of(const_cast<struct inode *>(inode), struct hostfs_inode, vfs_inode);
}
/* Whether `stat` describes the inode's object. */
static inline int hostfs_same_object(const struct inode *inode, const struct uk_stat *stat) {
  const struct hostfs_inode *info = hostfs_i(inode);
  return info->ino == stat->ino && info->dev == stat->dev && info->mount == stat->mount &&
         !__atomic_load_n(&info->gone, __ATOMIC_RELAXED);
}

/* Gets the path descriptor, which stays open until hostfs_put_fd. -ENOENT: the object was removed
 * through this mount; -ESTALE: it is gone on the host. HOSTFS_IF_OPEN: -ENOENT when the descriptor
 * is closed. */
enum hostfs_get_how { HOSTFS_REOPEN, HOSTFS_IF_OPEN };
int hostfs_get_fd(struct inode *inode, enum hostfs_get_how how);
void hostfs_put_fd(struct inode *inode);
/* Sets up the descriptor of a new inode, whose object is `stat`; the caller is its first user. */
void hostfs_init_fd(struct inode *inode, const struct uk_stat *stat);
/* Whether `fd`, a path descriptor opened by name, is of the inode's object; if so, takes it over.
 * If not, the host has reused the number, and the inode is marked gone. */
int hostfs_adopt_fd(struct inode *inode, int fd);
/* Closes the path descriptor of an inode without references. */
void hostfs_close(struct inode *inode);

/* The current task's identity for the host. The groups belong to the task. */
struct host_identity hostfs_caller(void);

/* The inode of a path descriptor's object. Takes the descriptor over, also on failure. ERR_PTR. */
struct inode *hostfs_iget(struct super_block *sb, int fd);
/* Updates an inode's attributes: from the host, from the host once in a request, or from attributes
 * just read. 0 or -errno. */
int hostfs_refresh(struct inode *inode);
int hostfs_refresh_once(struct inode *inode);
void hostfs_apply_stat(struct inode *inode, const struct uk_stat *stat);

/*
 * The host frees an unlinked object when its inode here is freed. That is shortly after the unlink,
 * when the hosting program drops its references. hostfs_note_removed records each removal.
 * hostfs_wait_for_room sleeps briefly and says whether a write that found no room should be
 * retried, because such an object was or will be freed.
 */
void hostfs_note_removed(struct inode *inode);
int hostfs_wait_for_room(void);

/* inode operations that all kinds of objects share */
int hostfs_permission(struct inode *inode, int mask, struct nameidata *nd);
int hostfs_setattr(struct dentry *dentry, struct iattr *attr);
int hostfs_getattr(struct vfsmount *mnt, struct dentry *dentry, struct kstat *stat);
int hostfs_setxattr(struct dentry *dentry, const char *name, const void *value, size_t size,
                    int flags);
ssize_t hostfs_getxattr(struct dentry *dentry, const char *name, void *value, size_t size);
ssize_t hostfs_listxattr(struct dentry *dentry, char *list, size_t size);
int hostfs_removexattr(struct dentry *dentry, const char *name);

extern struct inode_operations hostfs_file_iops;
extern struct inode_operations hostfs_dir_iops;
extern struct inode_operations hostfs_symlink_iops;
extern const struct file_operations hostfs_file_fops;
extern const struct file_operations hostfs_dir_fops;
extern const struct address_space_operations hostfs_aops;
extern struct dentry_operations hostfs_dops;

#ifdef __cplusplus
}

/* Holds an inode's path descriptor for the lifetime of the object. */
class hostfs_held {
 public:
  explicit hostfs_held(const struct inode *inode, hostfs_get_how how = HOSTFS_REOPEN)
      : inode_(const_cast<struct inode *>(inode)), fd_(hostfs_get_fd(inode_, how)) {}
  ~hostfs_held() {
    if (fd_ >= 0) hostfs_put_fd(inode_);
  }
  hostfs_held(const hostfs_held &) = delete;
  hostfs_held &operator=(const hostfs_held &) = delete;
  int fd() const { return fd_; } /* or -errno */

 private:
  struct inode *const inode_;
  const int fd_;
};
#endif
#endif
