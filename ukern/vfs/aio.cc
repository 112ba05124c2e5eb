// SPDX-License-Identifier: GPL-2.0
// Synchronous requests, and the completion of asynchronous ones.
#include "ukern/vfs/aio_internal.h"

#include <linux/errno.h>
#include <linux/file.h>
#include <linux/kernel.h>
#include <linux/sched.h>
#include <linux/slab.h>

#include "ukern/sync/guard.h"

namespace {

// Each request reserved a slot when it was allocated, so one is free.
void add_event_locked(struct kioctx *ctx, const struct kiocb *iocb, long res, long res2) {
  struct aio_ring_info *ring = &ctx->ring_info;
  BUG_ON(!free_slots_locked(ring));
  ring->events[ring->tail] = {
      iocb->ki_user_data, static_cast<__u64>(reinterpret_cast<unsigned long>(iocb->ki_obj.user)),
      res, res2};
  ring->tail = next_slot(ring, ring->tail);
}

// True if the reference was the last: the request is in no list and only the caller has it.
bool drop_reference_locked(struct kiocb *iocb) {
  const int users = __atomic_sub_fetch(&iocb->ki_users, 1, __ATOMIC_RELEASE);
  BUG_ON(users < 0);
  if (users) return false;
  list_del(&iocb->ki_list);
  return true;
}

void free_request(struct kiocb *iocb) {
  struct kioctx *ctx = iocb->ki_ctx;
  fput(iocb->ki_filp);
  {
    SpinGuard guard(ctx->ctx_lock);
    if (iocb->ki_dtor) iocb->ki_dtor(iocb);
    ctx->reqs_active--;
    wake_up(&ctx->wait);
  }
  kfree(iocb);
  put_ioctx(ctx);
}

int complete_sync(struct kiocb *iocb, long res) {
  BUG_ON(iocb->ki_users != 1);
  // The request is on the waiter's stack: once it reads as done, it and the waiter may be gone.
  struct task_struct *waiter = iocb->ki_obj.tsk;
  get_task_struct(waiter);
  iocb->ki_user_data = static_cast<__u64>(res);
  __atomic_store_n(&iocb->ki_users, 0, __ATOMIC_RELEASE);
  wake_up_process(waiter);
  put_task_struct(waiter);
  return 1;
}

}  // namespace

ssize_t wait_on_sync_kiocb(struct kiocb *iocb) {
  while (__atomic_load_n(&iocb->ki_users, __ATOMIC_ACQUIRE)) {
    set_current_state(TASK_UNINTERRUPTIBLE);
    if (!__atomic_load_n(&iocb->ki_users, __ATOMIC_ACQUIRE)) break;
    schedule();
  }
  __set_current_state(TASK_RUNNING);
  return static_cast<ssize_t>(iocb->ki_user_data);
}

int aio_complete(struct kiocb *iocb, long res, long res2) {
  if (is_sync_kiocb(iocb)) return complete_sync(iocb, res);

  struct kioctx *ctx = iocb->ki_ctx;
  bool last;
  {
    SpinGuard guard(ctx->ctx_lock);
    if (iocb->ki_run_list.next && !list_empty(&iocb->ki_run_list))
      list_del_init(&iocb->ki_run_list);
    add_event_locked(ctx, iocb, res, res2);
    last = drop_reference_locked(iocb);
    wake_up(&ctx->wait);
  }
  if (last) free_request(iocb);
  return last;
}

int aio_put_req(struct kiocb *iocb) {
  bool last;
  {
    SpinGuard guard(iocb->ki_ctx->ctx_lock);
    last = drop_reference_locked(iocb);
  }
  if (last) free_request(iocb);
  return last;
}

void kick_iocb(struct kiocb *iocb) {
  if (is_sync_kiocb(iocb)) {
    struct task_struct *waiter = iocb->ki_obj.tsk;
    get_task_struct(waiter);
    kiocbSetKicked(iocb);
    wake_up_process(waiter);
    put_task_struct(waiter);
    return;
  }
  struct kioctx *ctx = iocb->ki_ctx;
  SpinGuard guard(ctx->ctx_lock);
  if (!kiocbTryKick(iocb)) queue_kicked_locked(ctx, iocb);
}

void __put_ioctx(struct kioctx *ctx) {
  BUG_ON(ctx->reqs_active);
  kfree(ctx->ring_info.events);
  kfree(ctx);
}
