/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The path walk inside the VFS: walks from a given base. Everything here may sleep; names are
 * kernel strings that are valid during the call.
 *
 * A NULL `base` is the current directory; an absolute name ignores the base. The caller keeps its
 * references on the base.
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

/* In nd->flags after a walk: the file system has disowned the last component, which stays in the
 * cache because it is a directory in use. File systems do not test it. */
#define WALK_DISOWNED 0x8000000u

/* path_lookup from a base. */
int path_lookup_from(const struct walk_path *base, const char *name, unsigned flags,
                     struct nameidata *nd);

/* Drops both references of a path. */
void path_put(struct walk_path *path);
/* Drops a step's references that are its own (that on the mount only if a mount was crossed). */
void dput_path(struct walk_path *path, struct nameidata *nd);
/* Moves `nd` to the step and drops nd's old references. */
void path_to_nameidata(struct walk_path *path, struct nameidata *nd);
/* Follows the mounts on the path; 1 if there was one. */
int __follow_mount(struct walk_path *path);
/*
 * Follows the link at `path`, whose references it consumes. If nd->depth is 0 and the result
 * LAST_NORM, nd->last.name is a copy that the caller frees with __putname. On an error `nd` has
 * been released.
 */
int __do_follow_link(struct walk_path *path, struct nameidata *nd);

/* Looks one component up in `base`, without following mounts and links; the caller holds its
 * i_mutex. */
struct dentry *__lookup_hash(struct qstr *name, struct dentry *base, struct nameidata *nd);
/* Looks up the last component that a LOOKUP_PARENT walk left in `nd`. */
struct dentry *lookup_hash(struct nameidata *nd);

/* path_lookup_open from a base. */
int path_lookup_open_from(const struct walk_path *base, const char *name, unsigned flags,
                          struct nameidata *nd, int open_flags);
/* may_open with the permissions that `flag` (numbered as in may_open) needs; on an error releases
 * everything. */
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
