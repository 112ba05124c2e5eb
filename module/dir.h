/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The replicated directories, which renames check, the path of the daemon's program, and the socket
 * options for both. Nodes are reference counted as rules are; dirset.rwlock guards the list and the
 * count, and a flush holds it for reading only (see ox_flush.h). The daemon's path is read and
 * written without a lock and always contains a NUL.
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

/* Return 0, OX_ERR_* or the number of bytes that could not be copied. May sleep. */
int dir_add(const void __user *record, unsigned length);
int dir_del(const void __user *record, unsigned length);
int dir_delnode_fromlist(struct dir_node *node);
int dir_flush(int flag);
/* Returns `length` on success; 0 for length 0, which changes nothing; -EFAULT. A longer path is
 * cut. */
int dir_setmirrord(const char __user *path, unsigned length);

/* Are there no replicated directories? Takes no lock. */
bool dir_set_is_empty(void);
/* Only the daemon may rename in a replicated directory: is the calling task refused to rename
 * `path`? Logs a refusal. Takes the set's lock, mmap_sem and dcache_lock. */
bool dir_refuses_rename(const char *path);

int do_dir_set_ctl(struct sock *sk, int code, void __user *user, unsigned int length);

/* Returns 0, OX_ERR_NOMEM, or the error of the registration. */
[[nodiscard]] int dir_init(void);
void dir_exit(void);

#endif
