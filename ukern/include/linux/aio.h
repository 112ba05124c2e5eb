/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The request that the aio_read, aio_write and direct_IO operations act on. A synchronous one is on
 * the stack of the call that waits for it. An asynchronous one belongs to a context, which receives
 * its result, and lives until the submission and the operation have dropped their references.
 * Neither is ever cancelled.
 *
 * An operation that returns -EIOCBQUEUED must call aio_complete once; one that returns -EIOCBRETRY
 * must call kick_iocb once. A direct_IO that moves all of an asynchronous request, or any part of a
 * read, calls aio_complete itself, before or after it returns the number of bytes; its caller then
 * returns -EIOCBQUEUED.
 */
#ifndef UKERN_LINUX_AIO_H
#define UKERN_LINUX_AIO_H

#include <linux/aio_abi.h>
#include <linux/list.h>
#include <linux/spinlock.h>
#include <linux/types.h>
#include <linux/wait.h>
#include <linux/bitops.h>
#include <linux/sched.h>
#include <asm/atomic.h>

struct file;
struct kioctx;

#ifdef __cplusplus
extern "C" {
#endif

#define KIOCB_SYNC_KEY (~0U)

/* bits of ki_flags */
#define KIF_KICKED 1

#define kiocbTryKick(iocb) test_and_set_bit(KIF_KICKED, &(iocb)->ki_flags)
#define kiocbSetKicked(iocb) set_bit(KIF_KICKED, &(iocb)->ki_flags)
#define kiocbClearKicked(iocb) clear_bit(KIF_KICKED, &(iocb)->ki_flags)
#define kiocbIsKicked(iocb) test_bit(KIF_KICKED, &(iocb)->ki_flags)

struct kiocb {
  struct list_head ki_run_list; /* in kioctx.run_list; null pointers while ki_retry runs */
  long ki_flags;
  int ki_users; /* of an asynchronous request under kioctx.ctx_lock */
  unsigned ki_key;

  struct file *ki_filp;  /* an asynchronous request has a reference */
  struct kioctx *ki_ctx; /* NULL: a synchronous request */
  int (*ki_cancel)(struct kiocb *, struct io_event *);
  ssize_t (*ki_retry)(struct kiocb *);
  void (*ki_dtor)(struct kiocb *); /* with ctx_lock held; may be NULL */

  union {
    void __user *user;       /* the submitter's id of an asynchronous request */
    struct task_struct *tsk; /* the task that waits for a synchronous request */
  } ki_obj;

  __u64 ki_user_data; /* the submitter's; of a synchronous request its result */
  wait_queue_t ki_wait;
  loff_t ki_pos;

  void *private_; /* the file system's; named `private` where C sees it */
  unsigned short ki_opcode;
  size_t ki_nbytes;
  char __user *ki_buf;
  size_t ki_left;
  long ki_retried;
  long ki_kicked;
  long ki_queued;

  struct list_head ki_list; /* in kioctx.active_reqs */
};

/* Unread results: a ring with one slot always empty. */
struct aio_ring_info {
  struct io_event *events;
  unsigned nr, head, tail;
};

/* Receives the results of asynchronous requests. Reference counted, see get_ioctx. */
struct kioctx {
  atomic_t users;
  wait_queue_head_t wait; /* woken for each result, each kick and each freed request */
  spinlock_t ctx_lock;

  /* under ctx_lock */
  int reqs_active;
  struct list_head active_reqs; /* kiocb.ki_list */
  struct list_head run_list;    /* kiocb.ki_run_list: kicked, to be run again */
  struct aio_ring_info ring_info;
};

#define is_sync_kiocb(iocb) ((iocb)->ki_key == KIOCB_SYNC_KEY)

/* Initialises a synchronous request of the current task on `filp`; the caller sets the position. */
#define init_sync_kiocb(x, filp)        \
  do {                                  \
    struct task_struct *tsk_ = current; \
    (x)->ki_flags = 0;                  \
    (x)->ki_users = 1;                  \
    (x)->ki_key = KIOCB_SYNC_KEY;       \
    (x)->ki_filp = (filp);              \
    (x)->ki_ctx = NULL;                 \
    (x)->ki_cancel = NULL;              \
    (x)->ki_retry = NULL;               \
    (x)->ki_dtor = NULL;                \
    (x)->ki_obj.tsk = tsk_;             \
    (x)->ki_user_data = 0;              \
    init_wait((&(x)->ki_wait));         \
  } while (0)

/* Sleeps until ki_users is 0. Returns ki_user_data, the result of a synchronous request. */
ssize_t wait_on_sync_kiocb(struct kiocb *iocb);
/*
 * Completes a queued request. A synchronous one: wakes the waiter, which may free the request at
 * once; returns 1. An asynchronous one: adds an event and drops the operation's reference; returns
 * 1 when that was the last, and may then sleep (fput).
 */
int aio_complete(struct kiocb *iocb, long res, long res2);
/* Drops a reference of an asynchronous request: 1 when it was the last, which frees the request and
 * drops its file. Below zero is a BUG. May sleep (fput). */
int aio_put_req(struct kiocb *iocb);
/* Runs a request again that returned -EIOCBRETRY. Once for each. Never sleeps. */
void kick_iocb(struct kiocb *iocb);

/* Frees a context that has no references and no requests. */
void __put_ioctx(struct kioctx *ctx);

#define get_ioctx(kioctx)                       \
  do {                                          \
    BUG_ON(atomic_read(&(kioctx)->users) <= 0); \
    atomic_inc(&(kioctx)->users);               \
  } while (0)
#define put_ioctx(kioctx)                                           \
  do {                                                              \
    BUG_ON(atomic_read(&(kioctx)->users) <= 0);                     \
    if (atomic_dec_and_test(&(kioctx)->users)) __put_ioctx(kioctx); \
  } while (0)

#ifdef __cplusplus
}
#endif
#endif
