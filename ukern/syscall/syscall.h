/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The system calls on names, attributes, extended attributes and mounts, for the current task.
 * Everything here may sleep. Names are kernel strings that are valid during the call; buffers are
 * user memory.
 *
 * A `base`, as in walk.h, is where a relative name begins; NULL is the current directory.
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

/* readlink(2) after the walk. Returns the length; the text is not terminated. */
int readlink_at(const struct walk_path *path, char __user *buf, int size);

/* attributes.cc: after the walk. `file` is an open file. */
int chmod_at(const struct walk_path *path, mode_t mode);
int chown_at(const struct walk_path *path, uid_t user, gid_t group); /* -1: unchanged */
int truncate_at(const struct walk_path *path, loff_t length);
int ftruncate_file(struct file *file, loff_t length);
/*
 * utimes: `valid` has ATTR_ATIME and ATTR_MTIME for the times to set, and ATTR_ATIME_SET and
 * ATTR_MTIME_SET for those set to the given value instead of the current time.
 */
int utimes_at(const struct walk_path *path, unsigned valid, const struct timespec *atime,
              const struct timespec *mtime);
/* access(2): checks with the real ids instead of fsuid and fsgid. `mode` of MAY_READ, MAY_WRITE,
 * MAY_EXEC. */
int access_at(const struct walk_path *path, int mode);

/* xattr.cc: after the walk; values are user memory. */
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
