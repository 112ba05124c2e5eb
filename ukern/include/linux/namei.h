/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The path walk: from a name to a dentry and the mount through which it was reached.
 *
 * A nameidata that a call fills holds one reference on its dentry and one on its mount until
 * path_release; on an error it holds none. Everything here may sleep. Names are kernel strings.
 */
#ifndef UKERN_LINUX_NAMEI_H
#define UKERN_LINUX_NAMEI_H

#include <linux/linkage.h>
#include <linux/types.h>
#include <linux/compiler.h>
#include <linux/dcache.h>

struct vfsmount;
struct file;

#ifdef __cplusplus
extern "C" {
#endif

struct open_intent {
  int flags;
  int create_mode;
  struct file *file;
};

enum { MAX_NESTED_LINKS = 8 };

struct nameidata {
  struct dentry *dentry;
  struct vfsmount *mnt;
  struct qstr last; /* with LOOKUP_PARENT: the last component, not looked up */
  unsigned int flags;
  int last_type;
  unsigned depth; /* of nested links being followed */
  char *saved_names[MAX_NESTED_LINKS + 1];
  union {
    struct open_intent open; /* valid with LOOKUP_OPEN, LOOKUP_CREATE */
  } intent;
};

/* The type of the last component, after a walk with LOOKUP_PARENT. */
enum { LAST_NORM, LAST_ROOT, LAST_DOT, LAST_DOTDOT, LAST_BIND };

#define LOOKUP_FOLLOW 1      /* follow a link that is the last component */
#define LOOKUP_DIRECTORY 2   /* the result must be a directory */
#define LOOKUP_CONTINUE 4    /* set during the walk while components follow */
#define LOOKUP_PARENT 16     /* stop at the directory of the last component */
#define LOOKUP_NOALT 32      /* no alternate root */
#define LOOKUP_REVAL 64      /* do not trust the dentry cache */
#define LOOKUP_OPEN 0x0100   /* the intent: open */
#define LOOKUP_CREATE 0x0200 /* create */
#define LOOKUP_ACCESS 0x0400 /* check access */

/* 0 or the first error of the walk: -ENOENT, -ENOTDIR, -EACCES, -ELOOP, -ENAMETOOLONG, -ENOMEM, ...
 */
int path_lookup(const char *name, unsigned flags, struct nameidata *nd);
/* Continue the walk from `nd`; a failed walk has released it. */
int path_walk(const char *name, struct nameidata *nd);
int link_path_walk(const char *name, struct nameidata *nd);
void path_release(struct nameidata *nd);
/* As path_release, but leaves the mount's expiry mark alone. */
void path_release_on_umount(struct nameidata *nd);

/* The open file for a finished open walk; takes over the references of `nd`. */
struct file *nameidata_to_filp(struct nameidata *nd, int flags);
/* Releases the file of an intent to open. */
void release_open_intent(struct nameidata *nd);

/*
 * Looks up one component in `base`, after a check of execute permission; follows no mount and no
 * link. The caller holds the i_mutex of `base`. May return a negative dentry. -EACCES for an empty
 * name and for one with a slash or a NUL.
 */
struct dentry *lookup_one_len(const char *name, struct dentry *base, int len);

/* 1, with both changed, if there is a mount on the dentry (down) or the mount has a parent (up);
 * else 0. */
int follow_down(struct vfsmount **mnt, struct dentry **dentry);
int follow_up(struct vfsmount **mnt, struct dentry **dentry);

/*
 * Locks two directories of one file system for a rename, the ancestor first; for two different ones
 * also the super block's rename mutex. Returns the child of one on the way to the other, or NULL.
 */
struct dentry *lock_rename(struct dentry *p1, struct dentry *p2);
void unlock_rename(struct dentry *p1, struct dentry *p2);

static inline void nd_set_link(struct nameidata *nd, char *path) {
  nd->saved_names[nd->depth] = path;
}

static inline char *nd_get_link(struct nameidata *nd) {
  return nd->saved_names[nd->depth];
}

#ifdef __cplusplus
}
#endif
#endif
