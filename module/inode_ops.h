/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The inode operations, by file; inode.cc has the tables. Each performs the operation on the lower
 * objects, binds or refreshes the upper ones, and captures the change.
 */
#ifndef TARN_INODE_OPS_H
#define TARN_INODE_OPS_H

#include "ox_guard.h"
#include "tarn.h"

typedef ox_owner<struct dentry, dput> dentry_ref;

/* namei.cc: operations that change names. */
/* Looks up the name of an upper dentry in a lower directory whose i_mutex is held. Returns a lower
 * dentry with a reference, or an error pointer. */
struct dentry *tarn_lookup_lower(struct dentry *lower_dir, const struct dentry *dentry);
int tarn_create(struct inode *dir, struct dentry *dentry, int mode, struct nameidata *nd);
int tarn_mkdir(struct inode *dir, struct dentry *dentry, int mode);
int tarn_mknod(struct inode *dir, struct dentry *dentry, int mode, dev_t dev);
int tarn_symlink(struct inode *dir, struct dentry *dentry, const char *symname);
int tarn_link(struct dentry *old_dentry, struct inode *dir, struct dentry *new_dentry);
int tarn_unlink(struct inode *dir, struct dentry *dentry);
int tarn_rmdir(struct inode *dir, struct dentry *dentry);
int tarn_rename(struct inode *old_dir, struct dentry *old_dentry, struct inode *new_dir,
                struct dentry *new_dentry);

/* attr.cc: attributes and extended attributes. */
int tarn_setattr(struct dentry *dentry, struct iattr *ia);
int tarn_setxattr(struct dentry *dentry, const char *name, const void *value, size_t size,
                  int flags);
ssize_t tarn_getxattr(struct dentry *dentry, const char *name, void *value, size_t size);
ssize_t tarn_listxattr(struct dentry *dentry, char *list, size_t size);
int tarn_removexattr(struct dentry *dentry, const char *name);

/* symlink.cc: reading symbolic links. */
int tarn_readlink(struct dentry *dentry, char __user *buf, int bufsiz);
void *tarn_follow_link(struct dentry *dentry, struct nameidata *nd);
void tarn_put_link(struct dentry *dentry, struct nameidata *nd, void *cookie);

#endif
