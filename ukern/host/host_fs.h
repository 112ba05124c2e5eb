/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The host's file system. Objects are held by descriptors: a path descriptor (O_PATH) names an
 * object for good, wherever it moves and whatever is mounted over it; a data descriptor reads and
 * writes it.
 *
 * Every call returns a result >= 0 or a negative error number. Every call may block for as long as
 * the host's file system takes, except where it says that it does not; none may be made with a spin
 * lock held.
 *
 * `as` is who the host shall think is asking: when the program runs as root, the calling thread
 * takes that identity for its file system accesses (and keeps it until a later call asks for
 * another); otherwise the program's own rights apply. NULL: the program itself. The first call of a
 * thread gives it a file mode mask of its own, 0.
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
  unsigned capabilities; /* bit mask of CAP_*; those that are about files, and no others, count */
};

/* Raises the limit of open descriptors as far as it goes: for root to the machine's, for others to
 * their hard limit; the limit. Does not block. */
long host_fs_start(void);
/* 1 when calls are made as `as`: as anybody by root, by others as the user that runs the program.
 * 0 when they are made as the program all the same. Does not block. */
int host_fs_can_be(const struct host_identity *as);

/* A path descriptor of a directory given by its path. */
int host_fs_root(const char *path);
/* A path descriptor of the object at a name; a symbolic link is not followed. */
int host_fs_lookup(const struct host_identity *as, int dir, const char *name);
/* Does not block. */
void host_fs_close(int fd);

/*
 * How an object is found again when no descriptor of it is held: as the same object wherever it has
 * moved, and never as another one that was given its number. Only root can, and only where the file
 * system keeps handles for as long as the object lives.
 *
 * host_fs_origin: a data descriptor by which directories of the same mount and file system as the
 * directory behind `fd` are found; -EOPNOTSUPP when they cannot be. host_fs_handle: -EOVERFLOW when
 * there is no room for it. host_fs_reopen: a path descriptor; -ESTALE when the object is gone.
 */
enum { HOST_HANDLE_ROOM = 24 };
struct host_handle {
  int type;
  unsigned length;
  unsigned char bytes[HOST_HANDLE_ROOM]; /* those behind `length` are 0 */
};
int host_fs_origin(int fd);
int host_fs_handle(int fd, struct host_handle *out);
int host_fs_reopen(int origin, const struct host_handle *handle);

int host_fs_stat(int fd, struct uk_stat *out);
int host_fs_stat_name(const struct host_identity *as, int dir, const char *name,
                      struct uk_stat *out);
int host_fs_statfs(int fd, struct uk_statfs *out);
/* May `as` do this (bits: 4 read, 2 write, 1 execute or search)? 0 or -EACCES, -EROFS, ... */
int host_fs_access(const struct host_identity *as, int fd, int mask);
/* The text of a symbolic link, cut to `size`, not terminated: its length. */
long host_fs_readlink(int fd, char *buf, unsigned long size);

/* Each makes a new name. Create: a path descriptor of the new regular file, and in *data, unless
 * data is NULL, a data descriptor for reading and writing it. */
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
/* ~0u leaves the one or the other as it is. */
int host_fs_chown(const struct host_identity *as, int fd, unsigned uid, unsigned gid);
int host_fs_truncate(const struct host_identity *as, int fd, unsigned long long size);
/* NULL leaves a time as it is; nsec HOST_TIME_NOW: the host's present. */
#define HOST_TIME_NOW (~0u)
int host_fs_utimes(const struct host_identity *as, int fd, const struct uk_time *atime,
                   const struct uk_time *mtime);

int host_fs_setxattr(const struct host_identity *as, int fd, const char *name, const void *value,
                     unsigned long size, int flags);
long host_fs_getxattr(const struct host_identity *as, int fd, const char *name, void *value,
                      unsigned long size);
long host_fs_listxattr(const struct host_identity *as, int fd, char *list, unsigned long size);
int host_fs_removexattr(const struct host_identity *as, int fd, const char *name);

/* A data descriptor of the object behind a path descriptor, opened as the program itself. */
enum host_open_mode { HOST_OPEN_READ, HOST_OPEN_WRITE, HOST_OPEN_READ_WRITE, HOST_OPEN_DIR };
int host_fs_open(int fd, enum host_open_mode mode);
/*
 * Makes the data descriptor `data` of the object behind the path descriptor `fd` one for reading
 * and writing. Transfers that are under way on it are not disturbed. On failure it is as before.
 */
int host_fs_make_writable(int fd, int data);
long host_fs_pread(int fd, void *buf, unsigned long len, unsigned long long pos);
/* `as` decides whether the host takes set-user-id bits off the file. */
long host_fs_pwrite(const struct host_identity *as, int fd, const void *buf, unsigned long len,
                    unsigned long long pos);
/* Writes at the end, wherever that is then; *end gets the position behind what was written. */
long host_fs_append(const struct host_identity *as, int fd, const void *buf, unsigned long len,
                    unsigned long long *end);
int host_fs_sync(int fd, int datasync);
/*
 * Directory entries from position `pos` of a directory's data descriptor: raw records
 * (host_dirent), as many as fit: the bytes used, 0 at the end. The caller lets one thread at a time
 * use one descriptor.
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
