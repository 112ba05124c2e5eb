/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The kernel's file-system calls for the program that hosts it. Every call acts as the current task
 * and does all that the system call does: path walk with permission checks, VFS, page cache.
 *
 * A node is the object behind a handle of the mount's user: one inode of one mount, with the name
 * of its last lookup. All names of a file share one node. A call that would walk a path in a kernel
 * walks the last component again, from the node's directory by its name, so that revalidation and
 * replaced dentries behave the same. When the name is gone (unlinked while in use), the node's own
 * dentry is used.
 *
 * All calls return 0 or a negative error number unless said otherwise. Names are single components.
 * Buffers are user memory of the current task during the call.
 */
#ifndef UKERN_DOOR_UK_FS_H
#define UKERN_DOOR_UK_FS_H

#include "ukern/door/uk_types.h"

#ifdef __cplusplus
extern "C" {
#endif

struct uk_node;
struct uk_file;

/* mount(2), umount2(2) and the mount table, inside the kernel's own name space. */
int uk_fs_mount(const char *source, const char *dir, const char *type, unsigned long flags,
                const void *data);
int uk_fs_umount(const char *dir, int flags);
/* Line `index` of the mount table as in /proc/mounts, with the options of show_options. -ENOENT
 * past the end, -ERANGE if it does not fit into `size` bytes with its NUL. */
int uk_fs_mount_line(unsigned index, char *line, unsigned long size);

/* The node at a path (last link followed), with a reference for the caller. For the root of a
 * mount, name its mount point. */
int uk_node_at(const char *path, struct uk_node **out);
/* Adds a reference to a node that is already referenced. */
void uk_node_get(struct uk_node *node);
/* Drops `count` references. */
void uk_node_put(struct uk_node *node, unsigned long count);
/*
 * Private data of the hosting program in the node: UK_NODE_ROOM bytes, pointer-aligned, zeroed when
 * the node is created and freed with it. The hosting program does the locking.
 */
enum { UK_NODE_ROOM = 48 };
void *uk_node_room(struct uk_node *node);
/* The node's inode number, as in st_ino. */
unsigned long long uk_node_ino(struct uk_node *node);

/*
 * Gets the node of the directory in which a node was last looked up, with a reference for the
 * caller, and the name. -EISDIR for a directory. -ENOENT if the name is gone, the node is a mount
 * root, or the directory has no node.
 */
int uk_node_place(struct uk_node *node, struct uk_node **dir, char name[256]);

/*
 * Sets whether (1) or not (0, as after every call) the current task's next call belongs to the same
 * system call as the lookups just before it. If so, a lookup joins them, and any other call trusts
 * their results instead of revalidating.
 */
void uk_request_continues(int yes);

/* Each call with `out` adds one reference, the caller's, to the node that it returns. A name that
 * has a mount on it gives the directory below, as the host has mounts of its own. */
int uk_lookup(struct uk_node *dir, const char *name, struct uk_node **out, struct uk_stat *stat);
int uk_getattr(struct uk_node *node, struct uk_file *file,
               struct uk_stat *stat);                                 /* file may be 0: fstat */
int uk_readlink(struct uk_node *node, char *buf, unsigned long size); /* length, not terminated */
int uk_access(struct uk_node *node, int mask);
int uk_mknod(struct uk_node *dir, const char *name, unsigned mode, unsigned rdev,
             struct uk_node **out, struct uk_stat *stat); /* regular files too, as mknod(2) */
int uk_mkdir(struct uk_node *dir, const char *name, unsigned mode, struct uk_node **out,
             struct uk_stat *stat);
int uk_symlink(struct uk_node *dir, const char *name, const char *target, struct uk_node **out,
               struct uk_stat *stat);
int uk_link(struct uk_node *node, struct uk_node *dir, const char *name, struct uk_node **out,
            struct uk_stat *stat);
int uk_unlink(struct uk_node *dir, const char *name);
int uk_rmdir(struct uk_node *dir, const char *name);
int uk_rename(struct uk_node *old_dir, const char *old_name, struct uk_node *new_dir,
              const char *new_name);

enum uk_set {
  UK_SET_MODE = 1,
  UK_SET_UID = 2,
  UK_SET_GID = 4,
  UK_SET_SIZE = 8,
  UK_SET_ATIME = 16,
  UK_SET_MTIME = 32,
  UK_SET_ATIME_NOW = 64,
  UK_SET_MTIME_NOW = 128
};
/*
 * Applies the attributes in `set` like chmod, chown, truncate (ftruncate for a file that is open
 * for writing) and utimes, in that order; stops at the first error. An empty `set` is a chown
 * without owner and group, which clears set-id bits if the caller may do that. `stat` receives the
 * attributes afterwards.
 */
int uk_setattr(struct uk_node *node, struct uk_file *file, unsigned set, const struct uk_stat *want,
               struct uk_stat *stat);
int uk_statfs(struct uk_node *node, struct uk_statfs *out);

int uk_setxattr(struct uk_node *node, const char *name, const void *value, unsigned long size,
                int flags);
long uk_getxattr(struct uk_node *node, const char *name, void *value, unsigned long size);
long uk_listxattr(struct uk_node *node, char *list, unsigned long size);
int uk_removexattr(struct uk_node *node, const char *name);

/* Open flags of the kernel, which are x86-64's: where these have other values than on the host. */
enum { UK_O_DIRECT = 0040000, UK_O_DIRECTORY = 0200000, UK_O_NOFOLLOW = 0400000 };
/* open(2) on an existing node; O_CREAT and O_EXCL are ignored. UK_OPEN_TO_RUN opens for reading as
 * execve(2) does: it needs execute permission, not read permission. */
enum { UK_OPEN_TO_RUN = 0x20 };
int uk_open(struct uk_node *node, int flags, struct uk_file **out);
/* open(2) with O_CREAT. */
int uk_create(struct uk_node *dir, const char *name, int flags, unsigned mode, struct uk_node **out,
              struct uk_file **file, struct uk_stat *stat);
/* pread/pwrite: bytes moved, or -errno. `flags` are the descriptor's current flags, which F_SETFL
 * may have changed since the open. Only O_APPEND matters: it writes at the end. */
long uk_read(struct uk_file *file, void *buf, unsigned long len, unsigned long long pos);
long uk_write(struct uk_file *file, const void *buf, unsigned long len, unsigned long long pos,
              int flags);
int uk_flush(struct uk_file *file); /* the flush of each close(2) */
int uk_fsync(struct uk_file *file, int datasync);
void uk_release(struct uk_file *file);

/*
 * Lists a directory from position `off` on (0: the start). Calls `fill(arg, name, ino, type, next)`
 * for each entry with its DT_* type and the position behind it. A non-zero result stops; that entry
 * is not consumed.
 */
int uk_readdir(struct uk_file *dir, unsigned long long off,
               int (*fill)(void *arg, const char *name, unsigned long long ino, unsigned type,
                           unsigned long long next),
               void *arg);

/* Number of cached host directories whose descriptor stays open because the host cannot reopen
 * them. Descriptors of other directories are closed when there are too many. */
unsigned long uk_pinned_directories(void);

/* Frees all unused dentries and inodes. */
void uk_drop_caches(void);
/* Limits unused dentries and unused inodes, each to `limit`. At boot: 20000, or fewer if the host
 * allows few descriptors. */
void uk_set_cache_limit(unsigned limit);

#ifdef __cplusplus
}
#endif
#endif
