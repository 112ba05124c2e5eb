/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The host's file system. Descriptors refer to objects: a path descriptor (O_PATH) to the same
 * object wherever it moves and whatever is mounted over it; a data descriptor reads and writes.
 *
 * Every call returns a result >= 0 or a negative error number. Every call may block for as long as
 * the host's file system takes, except where it says that it does not; none may be made with a spin
 * lock held.
 *
 * `as` is the identity that the host checks. If the program runs as root, the calling thread takes
 * that identity for file system access, and keeps it until a later call changes it. Otherwise the
 * program's own rights apply. NULL: the program itself. A thread's first call sets a umask of its
 * own, 0.
 */
#ifndef UKERN_HOST_HOST_FS_H
#define UKERN_HOST_HOST_FS_H

#include "ukern/door/uk_types.h"

#ifdef __cplusplus
extern "C" {
#endif

struct host_identity {
  unsigned uid, gid;
  unsigned ngroups;
  const unsigned *groups;
  unsigned capabilities; /* bit mask of CAP_*; only those for file access count */
};

/* Raises the limit of open descriptors to the system's for root, to the hard limit for others.
 * Returns the limit. Does not block. */
long host_fs_start(void);
/* 1 if calls are made as `as`: any identity for root, for others only the user that runs the
 * program. 0 if they are made as the program instead. Does not block. */
int host_fs_can_be(const struct host_identity *as);

/* A path descriptor of a directory given by its path. */
int host_fs_root(const char *path);
/* A path descriptor of the object at a name; a symbolic link is not followed. */
int host_fs_lookup(const struct host_identity *as, int dir, const char *name);
/* Does not block. */
void host_fs_close(int fd);

/*
 * File handles find an object that has no open descriptor: the same object wherever it has moved,
 * never another one with its inode number. Only for root, and only where the file system's handles
 * are valid as long as the object exists.
 *
 * host_fs_origin: a data descriptor for reopening directories of the same mount and file system as
 * the directory `fd`; -EOPNOTSUPP when that is impossible. host_fs_handle: -EOVERFLOW when the
 * handle is too large. host_fs_reopen: a path descriptor; -ESTALE when the object is gone.
 */
enum { HOST_HANDLE_ROOM = 24 };
struct host_handle {
  int type;
  unsigned length;
  unsigned char bytes[HOST_HANDLE_ROOM]; /* 0 behind `length` */
};
int host_fs_origin(int fd);
int host_fs_handle(int fd, struct host_handle *out);
int host_fs_reopen(int origin, const struct host_handle *handle);

int host_fs_stat(int fd, struct uk_stat *out);
int host_fs_stat_name(const struct host_identity *as, int dir, const char *name,
                      struct uk_stat *out);
int host_fs_statfs(int fd, struct uk_statfs *out);
/* Checks access of `as` (bits: 4 read, 2 write, 1 execute or search). 0 or -EACCES, -EROFS, ... */
int host_fs_access(const struct host_identity *as, int fd, int mask);
/* Reads a symbolic link's target, cut to `size`, not terminated. Returns its length. */
long host_fs_readlink(int fd, char *buf, unsigned long size);

/* Each creates a name. host_fs_create returns a path descriptor of the new regular file and sets
 * *data, unless data is NULL, to a data descriptor for reading and writing. */
int host_fs_create(const struct host_identity *as, int dir, const char *name, unsigned mode,
                   int *data);
int host_fs_mkdir(const struct host_identity *as, int dir, const char *name, unsigned mode);
int host_fs_mknod(const struct host_identity *as, int dir, const char *name, unsigned mode,
                  unsigned major, unsigned minor);
int host_fs_symlink(const struct host_identity *as, int dir, const char *name, const char *target);
int host_fs_link(const struct host_identity *as, int fd, int dir, const char *name);
int host_fs_unlink(const struct host_identity *as, int dir, const char *name);
int host_fs_rmdir(const struct host_identity *as, int dir, const char *name);
int host_fs_rename(const struct host_identity *as, int old_dir, const char *old_name, int new_dir,
                   const char *new_name);

int host_fs_chmod(const struct host_identity *as, int fd, unsigned mode);
/* ~0u leaves the uid or gid unchanged. */
int host_fs_chown(const struct host_identity *as, int fd, unsigned uid, unsigned gid);
int host_fs_truncate(const struct host_identity *as, int fd, unsigned long long size);
/* NULL leaves a time unchanged; nsec HOST_TIME_NOW: the host's current time. */
#define HOST_TIME_NOW (~0u)
int host_fs_utimes(const struct host_identity *as, int fd, const struct uk_time *atime,
                   const struct uk_time *mtime);

int host_fs_setxattr(const struct host_identity *as, int fd, const char *name, const void *value,
                     unsigned long size, int flags);
long host_fs_getxattr(const struct host_identity *as, int fd, const char *name, void *value,
                      unsigned long size);
long host_fs_listxattr(const struct host_identity *as, int fd, char *list, unsigned long size);
int host_fs_removexattr(const struct host_identity *as, int fd, const char *name);

/* Opens a data descriptor of a path descriptor's object, as the program itself. */
enum host_open_mode { HOST_OPEN_READ, HOST_OPEN_WRITE, HOST_OPEN_READ_WRITE, HOST_OPEN_DIR };
int host_fs_open(int fd, enum host_open_mode mode);
/*
 * Makes `data`, a data descriptor of the object of path descriptor `fd`, readable and writable.
 * Transfers in progress on it are not disturbed. On failure it is unchanged.
 */
int host_fs_make_writable(int fd, int data);
long host_fs_pread(int fd, void *buf, unsigned long len, unsigned long long pos);
/* `as` decides whether the host clears the file's set-id bits. */
long host_fs_pwrite(const struct host_identity *as, int fd, const void *buf, unsigned long len,
                    unsigned long long pos);
/* Writes at the current end; *end is set to the position behind the data written. */
long host_fs_append(const struct host_identity *as, int fd, const void *buf, unsigned long len,
                    unsigned long long *end);
int host_fs_sync(int fd, int datasync);
/*
 * Reads directory entries from position `pos` of a directory's data descriptor: as many records
 * (host_dirent) as fit. Returns the bytes used, 0 at the end. The caller lets one thread at a time
 * use a descriptor.
 */
struct host_dirent {
  unsigned long long ino;
  long long next; /* the position behind this entry */
  unsigned short length;
  unsigned char type; /* DT_* */
  char name[];        /* with a NUL */
};
long host_fs_getdents(int fd, unsigned long long pos, void *buf, unsigned long size);

#ifdef __cplusplus
}
#endif
#endif
