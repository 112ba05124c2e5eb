/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The system calls on names, attributes, extended attributes and mounts, as the current task makes
 * them. Everything here may sleep. Names are kernel strings that live as long as the call; buffers
 * are user memory.
 *
 * A `base` is what walk.h says: where a relative name begins, NULL for the current directory.
 */
#ifndef UKERN_SYSCALL_SYSCALL_H
#define UKERN_SYSCALL_SYSCALL_H

#include "ukern/vfs/walk.h"

#ifdef __cplusplus
extern "C" {
#endif

/* names.cc; `mode` is before the umask. */
int mknod_at(const struct walk_path *base, const char *name, int mode, dev_t dev);
int mkdir_at(const struct walk_path *base, const char *name, int mode);
int symlink_at(const char *target, const struct walk_path *base, const char *name);
int link_at(const struct walk_path *old, const struct walk_path *base, const char *name);
int unlink_at(const struct walk_path *base, const char *name);
int rmdir_at(const struct walk_path *base, const char *name);
int rename_at(const struct walk_path *old_base, const char *old_name,
              const struct walk_path *new_base, const char *new_name);

/* readlink(2) of a link already found; the length, not terminated. */
int readlink_at(const struct walk_path *path, char __user *buf, int size);

/* attributes.cc: of an object already found. `file` is an open file of it. */
int chmod_at(const struct walk_path *path, mode_t mode);
int chown_at(const struct walk_path *path, uid_t user, gid_t group); /* -1: leave */
int truncate_at(const struct walk_path *path, loff_t length);
int ftruncate_file(struct file *file, loff_t length);
/*
 * utimes: `valid` holds which times, ATTR_ATIME and ATTR_MTIME, and ATTR_ATIME_SET and
 * ATTR_MTIME_SET for those that take the value given rather than now.
 */
int utimes_at(const struct walk_path *path, unsigned valid, const struct timespec *atime,
              const struct timespec *mtime);
/* access(2): the real ids count, not those of the file system. `mode` of MAY_READ, MAY_WRITE,
 * MAY_EXEC. */
int access_at(const struct walk_path *path, int mode);

/* xattr.cc: of an object already found; values are user memory. */
int setxattr_user(struct dentry *dentry, const char *name, const void __user *value, size_t size,
                  int flags);
ssize_t getxattr_user(struct dentry *dentry, const char *name, void __user *value, size_t size);
ssize_t listxattr_user(struct dentry *dentry, char __user *list, size_t size);
int removexattr_user(struct dentry *dentry, const char *name);

/* mount.cc; mount(2) is do_mount. umount2(2) by the path of the mount point. */
int umount_path(const char *dir, int flags);

#ifdef __cplusplus
}
#endif
#endif
