/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The kernel's file-system calls for the program that hosts it. Every call acts as the current task
 * and takes the whole road of the system call: path walk with permission checks, VFS, page cache.
 *
 * A node is what a user of the mount has a handle on: one inode of one mount, with the name by
 * which it was looked up last. Two names of one file are one node. A call that in a kernel would
 * walk a path walks its last step anew, from the node's directory by its name, so that revalidation
 * and replaced dentries behave as they do there; when the name is gone (unlinked while in use) the
 * dentry that the node holds is used.
 *
 * All calls return 0 or a negative error number unless said otherwise. Names are single components.
 * Buffers are made user memory of the current task for the time of the call.
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
/* Line `index` of the mount table as /proc/mounts has it, options of show_options included. -ENOENT
 * past the end, -ERANGE if it does not fit into `size` bytes with its NUL. */
int uk_fs_mount_line(unsigned index, char *line, unsigned long size);

/* The node at a path (last link followed); the caller owns one reference. For the root of a mount,
 * name its mount point. */
int uk_node_at(const char *path, struct uk_node **out);
/* One more reference to a node that somebody holds. */
void uk_node_get(struct uk_node *node);
/* Gives `count` references back. */
void uk_node_put(struct uk_node *node, unsigned long count);
/*
 * Room in the node for whoever uses it: UK_NODE_ROOM bytes, aligned as pointers are, zero when the
 * node is made. It goes with the node; its locks are the user's business.
 */
enum { UK_NODE_ROOM = 48 };
void *uk_node_room(struct uk_node *node);
/* A stable number of the node's inode, as st_ino. */
unsigned long long uk_node_ino(struct uk_node *node);

/*
 * Where a node was found last: the node of the directory, with a reference that is the caller's,
 * and the name in it. -EISDIR: it is a directory itself. -ENOENT: it has lost the name, is the top
 * of a mount, or nobody holds the directory.
 */
int uk_node_place(struct uk_node *node, struct uk_node **dir, char name[256]);

/*
 * Says whether (1) or not (0, as after every call) the current task's next call and the look-ups
 * that it made just before are one system call: a look-up is joined to those before it, and any
 * other call takes for true what they found rather than have the file system ask for it again.
 */
void uk_request_continues(int yes);

/* Each call with `out` adds one reference to the node it returns, which is the caller's. */
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
 * Applies what `set` names, by the system calls that would: chmod, chown, truncate (ftruncate with
 * a file that is open for writing), utimes, in that order; stops at the first error. Nothing named
 * is a chown of nothing, which takes set-id bits away if the caller may do that. `stat` gets the
 * attributes after it.
 */
int uk_setattr(struct uk_node *node, struct uk_file *file, unsigned set, const struct uk_stat *want,
               struct uk_stat *stat);
int uk_statfs(struct uk_node *node, struct uk_statfs *out);

int uk_setxattr(struct uk_node *node, const char *name, const void *value, unsigned long size,
                int flags);
long uk_getxattr(struct uk_node *node, const char *name, void *value, unsigned long size);
long uk_listxattr(struct uk_node *node, char *list, unsigned long size);
int uk_removexattr(struct uk_node *node, const char *name);

/* open(2) on an existing node; O_CREAT and O_EXCL are ignored. With UK_OPEN_TO_RUN as execve(2)
 * does: for reading, a file with the right to run it and not to read it. */
enum { UK_OPEN_TO_RUN = 0x20 };
int uk_open(struct uk_node *node, int flags, struct uk_file **out);
/* open(2) with O_CREAT. */
int uk_create(struct uk_node *dir, const char *name, int flags, unsigned mode, struct uk_node **out,
              struct uk_file **file, struct uk_stat *stat);
/* pread/pwrite: bytes moved, or -errno. `flags` are the descriptor's at this moment, which differ
 * from those of the open after F_SETFL; only O_APPEND counts: the write lands at the end. */
long uk_read(struct uk_file *file, void *buf, unsigned long len, unsigned long long pos);
long uk_write(struct uk_file *file, const void *buf, unsigned long len, unsigned long long pos,
              int flags);
int uk_flush(struct uk_file *file); /* what close(2) does before the last reference */
int uk_fsync(struct uk_file *file, int datasync);
void uk_release(struct uk_file *file);

/*
 * Directory entries from the file's position `off` on (0: the start): for each, `fill(arg, name,
 * ino, type, next)` with the DT_* type and the position behind it; a non-zero result stops (that
 * entry is not consumed).
 */
int uk_readdir(struct uk_file *dir, unsigned long long off,
               int (*fill)(void *arg, const char *name, unsigned long long ino, unsigned type,
                           unsigned long long next),
               void *arg);

/* How many directories of the host cost a descriptor for as long as they are remembered, because
 * the host could not find them again. Those of others are closed when there are too many. */
unsigned long uk_pinned_directories(void);

/* Unused dentries and inodes are given back now, all of them. */
void uk_drop_caches(void);
/* How many unused dentries, and how many unused inodes, may be kept; 20000 at boot. */
void uk_set_cache_limit(unsigned limit);

#ifdef __cplusplus
}
#endif
#endif
