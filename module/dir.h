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
#include "ox_flush.h"
#include "ox_guard.h"
#include "ox_msg.h"

struct dir_node {
  struct list_head list;     /* under dirset.rwlock */
  struct list_head aux_list; /* not used */
  atomic_t refcnt;
  spinlock_t node_lock; /* not used */
  struct dir dir;       /* repdir ends in a NUL */
};

struct dir_set {
  struct list_head head; /* in the order of insertion */
  int dirnum;
  rwlock_t rwlock;
  struct ox_flush flushed;
};

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

int do_dir_set_ctl(struct sock *sk, int code, void __user *user, unsigned int length);

/* 0, OX_ERR_NOMEM, or the error of the registration. */
[[nodiscard]] int dir_init(void);
void dir_exit(void);

#endif
