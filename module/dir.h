/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The replicated directories, which renames ask about, and the path of the daemon's program, with
 * the socket options that manage them. Nodes are reference counted as rules are; dirset.rwlock
 * guards the list and the count, and a flush holds it for reading only (see ox_flush.h). The
 * daemon's path is read and written without a lock and always holds a NUL.
 */
#ifndef TARN_DIR_H
#define TARN_DIR_H

#include "kernel.h"
#include "ox_guard.h"
#include "ox_msg.h"

struct dir_node;
struct dir_set; /* dir_set.h */

/* Absolute path of the daemon's program. */
extern char mirrord_full_name[OX_DAEMON_PATH_LEN];

struct dir_set *get_dir_set(void);
void dir_node_get(struct dir_node *node);
void dir_node_put(struct dir_node *node);
void free_dirnode(struct dir_node *node);

typedef ox_owner<struct dir_node, dir_node_put> dir_ref;

/* Results are 0, OX_ERR_* or the number of bytes that could not be copied. They sleep. */
int dir_add(const void __user *record, unsigned length);
int dir_del(const void __user *record, unsigned length);
int dir_delnode_fromlist(struct dir_node *node);
int dir_flush(int flag);
/* `length` on success, which is positive; 0 for length 0, which changes nothing; -EFAULT. A longer
 * path is cut. */
int dir_setmirrord(const char __user *path, unsigned length);

/* What lies in a replicated directory is moved by the daemon alone: whether the calling task may
 * not rename what is at `path`. Says so in the log. Takes the set's lock, mmap_sem and dcache_lock.
 */
bool dir_refuses_rename(const char *path);

int do_dir_set_ctl(struct sock *sk, int code, void __user *user, unsigned int length);

/* 0, OX_ERR_NOMEM, or the error of the registration. */
[[nodiscard]] int dir_init(void);
void dir_exit(void);

#endif
