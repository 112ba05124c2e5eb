/* SPDX-License-Identifier: GPL-2.0 */
/*
 * hostfs: a directory of the host and all below it as a file system. The host is asked every time:
 * nothing that it could change behind our back is believed without a look, except while something
 * is mounted on it here.
 *
 * An inode stands for one object of the host as reached through one mount of the host, known by
 * (st_dev, st_ino, mount), and owns a path descriptor of it, which keeps the object, and so its
 * number, from being reused. An open file owns a data descriptor.
 *
 * A directory may be remembered for as long as programs like. Where the host can find it again by a
 * handle, which tells it from every other that ever had its number, its path descriptor is given
 * back when many others were used since, and opened again at the next use (hostfs_held.cc).
 *
 * Who is asking: the current task's fsuid, fsgid and groups for everything that the host judges by
 * identity; data is opened as the program itself, because whoever opens has been checked before.
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

struct hostfs_origin; /* a mount of the host that directories were seen in */

struct hostfs_inode {
  struct inode vfs_inode;
  unsigned long long dev, ino, mount;
  int fd; /* the path descriptor; of a directory that can be opened again -1 when it is closed */
  /* Of directories: what it takes to open it again, which does not change, and whether that is not
     to be had; with fd, the rest is hostfs_held.cc's. */
  struct hostfs_origin *origin;
  struct host_handle handle;
  int kept;
  unsigned users;
  struct list_head idle;
  int gone;    /* the host has given the number to another object, or to none */
  int made;    /* a data descriptor that the creation left for the open that it belongs to, or -1 */
  int removed; /* its last name was taken away through here */
  /* Requests (<asm/request.h>): the one that took the attributes last, as a dentry's d_time is the
   * one that found its name to hold; and the one, with its mask, that the host granted rights last.
   */
  unsigned long attributes_of, granted;
};

static inline struct hostfs_inode *hostfs_i(const struct inode *inode) {
  return container_of(const_cast<struct inode *>(inode), struct hostfs_inode, vfs_inode);
}
/* Does the host speak of the inode's object? */
static inline int hostfs_is(const struct inode *inode, const struct uk_stat *stat) {
  const struct hostfs_inode *info = hostfs_i(inode);
  return info->ino == stat->ino && info->dev == stat->dev && info->mount == stat->mount &&
         !__atomic_load_n(&info->gone, __ATOMIC_RELAXED);
}

/* The path descriptor, which stays open until the same number of hostfs_unuse. -ENOENT: the object
 * was removed through here; -ESTALE: the host has no such object any more. HOSTFS_IF_OPEN: -ENOENT
 * when it is closed. */
enum hostfs_use_how { HOSTFS_REOPEN, HOSTFS_IF_OPEN };
int hostfs_use(struct inode *inode, enum hostfs_use_how how);
void hostfs_unuse(struct inode *inode);
/* A new inode has got its descriptor, of what the host describes so: its first use. */
void hostfs_use_new(struct inode *inode, const struct uk_stat *stat);
/* Whether a path descriptor that the host has opened by a name is of the inode's object, and taken
 * over; or of another that has got its number since, and the inode is gone. */
int hostfs_is_behind(struct inode *inode, int fd);
/* When nobody has the inode any more. */
void hostfs_close(struct inode *inode);

/* The current task as the host shall see it. The groups belong to the task. */
struct host_identity hostfs_caller(void);

/* The inode of the object behind a path descriptor, which it takes over. ERR_PTR. */
struct inode *hostfs_iget(struct super_block *sb, int fd);
/* Brings an inode up to date with what the host says, or with what it has just said; or with what
 * it has said since the call under way began. 0 or -errno. */
int hostfs_refresh(struct inode *inode);
int hostfs_refresh_once(struct inode *inode);
void hostfs_take_stat(struct inode *inode, const struct uk_stat *stat);

/*
 * What has lost its last name goes from the host when its inode here goes, and that is a moment
 * after the call that took the name: the user of this kernel forgets it only then. hostfs_removed
 * is told of each such inode; hostfs_wait_for_room says after a short sleep whether a write that
 * found no room should be tried again, because one of them has gone or is about to.
 */
void hostfs_removed(struct inode *inode);
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

/* An inode's path descriptor for as long as this stands. */
class hostfs_held {
 public:
  explicit hostfs_held(const struct inode *inode, hostfs_use_how how = HOSTFS_REOPEN)
      : inode_(const_cast<struct inode *>(inode)), fd_(hostfs_use(inode_, how)) {}
  ~hostfs_held() {
    if (fd_ >= 0) hostfs_unuse(inode_);
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
