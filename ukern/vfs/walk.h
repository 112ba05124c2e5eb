/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The path walk as seen from inside the VFS: walks that start at a given place. Everything here may
 * sleep; names are kernel strings that live as long as the call.
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

#ifdef __cplusplus
}
#endif
#endif
