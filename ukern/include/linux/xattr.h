/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Extended attributes of inodes. All calls may sleep; names and values are kernel memory.
 */
#ifndef UKERN_LINUX_XATTR_H
#define UKERN_LINUX_XATTR_H

#include <linux/types.h>
#include <linux/limits.h>

struct dentry;

#ifdef __cplusplus
extern "C" {
#endif

#define XATTR_CREATE 0x1  /* fail if it exists */
#define XATTR_REPLACE 0x2 /* fail if it does not */

#define XATTR_SECURITY_PREFIX "security."
#define XATTR_SECURITY_PREFIX_LEN (sizeof(XATTR_SECURITY_PREFIX) - 1)
#define XATTR_SYSTEM_PREFIX "system."
#define XATTR_SYSTEM_PREFIX_LEN (sizeof(XATTR_SYSTEM_PREFIX) - 1)
#define XATTR_TRUSTED_PREFIX "trusted."
#define XATTR_TRUSTED_PREFIX_LEN (sizeof(XATTR_TRUSTED_PREFIX) - 1)
#define XATTR_USER_PREFIX "user."
#define XATTR_USER_PREFIX_LEN (sizeof(XATTR_USER_PREFIX) - 1)

/*
 * Check the permission by name space, then call the inode's operation; the two that modify hold the
 * inode's i_mutex for it. -EOPNOTSUPP without the operation. With size 0 vfs_getxattr returns only
 * the length.
 */
int vfs_setxattr(struct dentry *dentry, char *name, void *value, size_t size, int flags);
ssize_t vfs_getxattr(struct dentry *dentry, char *name, void *value, size_t size);
int vfs_removexattr(struct dentry *dentry, char *name);

#ifdef __cplusplus
}
#endif
#endif
