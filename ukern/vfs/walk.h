/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The path walk as seen from inside the VFS: walks that start at a given place, and the system
 * calls on names built on them. Everything here may sleep; names are kernel strings that live as
 * long as the call.
 *
 * A `base` of NULL stands for the current directory; an absolute name ignores the base. The base is
 * the caller's, who holds it until the call returns: no reference on it is taken over.
 */
#ifndef UKERN_VFS_WALK_H
#define UKERN_VFS_WALK_H

#include <linux/fs.h>
#include <linux/mount.h>
#include <linux/namei.h>

#ifdef __cplusplus
extern "C" {
#endif

struct walk_path {
  struct vfsmount *mnt;
  struct dentry *dentry;
};

/* In nd->flags after a walk: the file system has disowned the last component, which is in the cache
 * because it is a directory in use. No file system tests it. */
#define WALK_DISOWNED 0x8000000u

/* path_lookup from a base. */
int path_lookup_from(const struct walk_path *base, const char *name, unsigned flags,
                     struct nameidata *nd);

/* Drops both references of a path. */
void path_put(struct walk_path *path);
/* Drops a step's references as far as `nd` does not share them (the mount, when it was not
 * crossed). */
void dput_path(struct walk_path *path, struct nameidata *nd);
/* Makes the step the new place of `nd`, which gives its own up. */
void path_to_nameidata(struct walk_path *path, struct nameidata *nd);
/* Steps down through whatever is mounted on the path; 1 when something was. */
int __follow_mount(struct walk_path *path);
/*
 * Follows the link at `path`, whose references it consumes. With `nd->depth` 0 and LAST_NORM as the
 * outcome, nd->last.name is a copy that the caller frees with __putname. On an error `nd` has been
 * released.
 */
int __do_follow_link(struct walk_path *path, struct nameidata *nd);

/* One component in `base`, no mounts, no links; the caller holds its i_mutex. */
struct dentry *__lookup_hash(struct qstr *name, struct dentry *base, struct nameidata *nd);
/* The last component that a LOOKUP_PARENT walk left in `nd`. */
struct dentry *lookup_hash(struct nameidata *nd);

/* path_lookup_open from a base. */
int path_lookup_open_from(const struct walk_path *base, const char *name, unsigned flags,
                          struct nameidata *nd, int open_flags);
/* may_open with the permissions that `flag` (numbered as in may_open) needs; on an error releases
 * all. */
int finish_open_walk(struct nameidata *nd, int flag);
/* As in open_namei: a walk with the intent to open, or to open and create. */
int open_namei_from(const struct walk_path *base, const char *name, int flag, int mode,
                    struct nameidata *nd);
/* filp_open from a base; ERR_PTR. */
struct file *filp_open_from(const struct walk_path *base, const char *name, int flags, int mode);

/* The system calls on names; `mode` is before the umask. */
int mknod_at(const struct walk_path *base, const char *name, int mode, dev_t dev);
int mkdir_at(const struct walk_path *base, const char *name, int mode);
int symlink_at(const char *target, const struct walk_path *base, const char *name);
int link_at(const struct walk_path *old, const struct walk_path *base, const char *name);
int unlink_at(const struct walk_path *base, const char *name);
int rmdir_at(const struct walk_path *base, const char *name);
int rename_at(const struct walk_path *old_base, const char *old_name,
              const struct walk_path *new_base, const char *new_name);

/* The system calls on attributes of an object already found. `file`, where given, is the open file
 * used. */
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
/* readlink(2) into user memory; the length, not terminated. */
int readlink_at(const struct walk_path *path, char __user *buf, int size);

/* The extended-attribute calls of an object already found; values are user memory. */
int setxattr_user(struct dentry *dentry, const char *name, const void __user *value, size_t size,
                  int flags);
ssize_t getxattr_user(struct dentry *dentry, const char *name, void __user *value, size_t size);
ssize_t listxattr_user(struct dentry *dentry, char __user *list, size_t size);
int removexattr_user(struct dentry *dentry, const char *name);

#ifdef __cplusplus
}
#endif
#endif
