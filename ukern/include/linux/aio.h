/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The request that the aio_read and aio_write operations act on. Only synchronous requests exist:
 * one lives on the stack of the call that waits for it, and is never cancelled.
 */
#ifndef UKERN_LINUX_AIO_H
#define UKERN_LINUX_AIO_H

#include <linux/list.h>
#include <linux/types.h>
#include <linux/wait.h>
#include <linux/bitops.h>
#include <linux/sched.h>

struct file;
struct kioctx;
struct io_event;

#ifdef __cplusplus
extern "C" {
#endif

#define KIOCB_SYNC_KEY (~0U)

/* bits of ki_flags */
#define KIF_KICKED 1
#define KIF_CANCELLED 2

#define kiocbSetKicked(iocb) set_bit(KIF_KICKED, &(iocb)->ki_flags)
#define kiocbClearKicked(iocb) clear_bit(KIF_KICKED, &(iocb)->ki_flags)
#define kiocbIsKicked(iocb) test_bit(KIF_KICKED, &(iocb)->ki_flags)

struct kiocb {
  struct list_head ki_run_list;
  long ki_flags;
  int ki_users;
  unsigned ki_key;

  struct file *ki_filp;
  struct kioctx *ki_ctx; /* NULL: a synchronous request */
  int (*ki_cancel)(struct kiocb *, struct io_event *);
  ssize_t (*ki_retry)(struct kiocb *);
  void (*ki_dtor)(struct kiocb *);

  union {
    void __user *user;
    struct task_struct *tsk; /* who waits for a synchronous request */
  } ki_obj;

  __u64 ki_user_data; /* of a synchronous request: its result */
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

  struct list_head ki_list;
};

#define is_sync_kiocb(iocb) ((iocb)->ki_key == KIOCB_SYNC_KEY)

/* Makes a synchronous request of the current task on `filp`; the position is the caller's to set.
 */
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

/* Sleeps until aio_complete has been called for the request; its result. */
ssize_t wait_on_sync_kiocb(struct kiocb *iocb);
/* The result of a queued synchronous request, from whoever finished it; wakes the waiter.
 * Returns 1. */
int aio_complete(struct kiocb *iocb, long res, long res2);

#ifdef __cplusplus
}
#endif
#endif
