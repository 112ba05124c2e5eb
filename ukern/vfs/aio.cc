// SPDX-License-Identifier: GPL-2.0
// Requests: those that one call makes and waits for, and asynchronous ones with their contexts.
#include "ukern/vfs/aio.h"

#include <linux/errno.h>
#include <linux/file.h>
#include <linux/kernel.h>
#include <linux/sched.h>
#include <linux/slab.h>

namespace {

unsigned next_place(const struct aio_ring_info *ring, unsigned place) {
  return place + 1 == ring->nr ? 0 : place + 1;
}

unsigned free_places_locked(const struct aio_ring_info *ring) {
  return (ring->head + ring->nr - 1 - ring->tail) % ring->nr;
}

// Each request took its place into account when it was made, so there is one.
void add_event_locked(struct kioctx *ctx, const struct kiocb *iocb, long res, long res2) {
  struct aio_ring_info *ring = &ctx->ring_info;
  BUG_ON(!free_places_locked(ring));
  ring->events[ring->tail] = {iocb->ki_user_data, (__u64)(unsigned long)iocb->ki_obj.user, res,
                              res2};
  ring->tail = next_place(ring, ring->tail);
}

// True when the reference was the last: the request is in no list and the caller's alone.
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
  spin_lock(&ctx->ctx_lock);
  if (iocb->ki_dtor) iocb->ki_dtor(iocb);
  ctx->reqs_active--;
  wake_up(&ctx->wait);
  spin_unlock(&ctx->ctx_lock);
  kfree(iocb);
  put_ioctx(ctx);
}

// A request that runs is queued when it has come back; one that is queued stays where it is.
void queue_kicked_locked(struct kioctx *ctx, struct kiocb *iocb) {
  if (!list_empty(&iocb->ki_run_list)) return;
  list_add_tail(&iocb->ki_run_list, &ctx->run_list);
  wake_up(&ctx->wait);
}

int complete_sync(struct kiocb *iocb, long res) {
  BUG_ON(iocb->ki_users != 1);
  // The request is on the waiter's stack: once it reads as done, it and the waiter may be gone.
  struct task_struct *waiter = iocb->ki_obj.tsk;
  get_task_struct(waiter);
  iocb->ki_user_data = (__u64)res;
  __atomic_store_n(&iocb->ki_users, 0, __ATOMIC_RELEASE);
  wake_up_process(waiter);
  put_task_struct(waiter);
  return 1;
}

// Once more, by a caller with a reference. One run of a request at a time.
ssize_t run(struct kiocb *iocb) {
  struct kioctx *ctx = iocb->ki_ctx;
  kiocbClearKicked(iocb);
  const ssize_t result = iocb->ki_retry(iocb);
  if (result != -EIOCBRETRY && result != -EIOCBQUEUED) aio_complete(iocb, result, 0);
  if (result == -EIOCBRETRY) {
    spin_lock(&ctx->ctx_lock);
    INIT_LIST_HEAD(&iocb->ki_run_list);
    if (kiocbIsKicked(iocb)) queue_kicked_locked(ctx, iocb);
    spin_unlock(&ctx->ctx_lock);
  }
  return result;
}

// The next one that has been kicked, with a reference, as one that runs.
struct kiocb *take_kicked(struct kioctx *ctx) {
  struct kiocb *iocb = nullptr;
  spin_lock(&ctx->ctx_lock);
  if (!list_empty(&ctx->run_list)) {
    iocb = list_entry(ctx->run_list.next, struct kiocb, ki_run_list);
    list_del(&iocb->ki_run_list);
    iocb->ki_run_list.next = iocb->ki_run_list.prev = nullptr;
    __atomic_add_fetch(&iocb->ki_users, 1, __ATOMIC_RELAXED);
  }
  spin_unlock(&ctx->ctx_lock);
  return iocb;
}

}  // namespace

ssize_t wait_on_sync_kiocb(struct kiocb *iocb) {
  while (__atomic_load_n(&iocb->ki_users, __ATOMIC_ACQUIRE)) {
    set_current_state(TASK_UNINTERRUPTIBLE);
    if (!__atomic_load_n(&iocb->ki_users, __ATOMIC_ACQUIRE)) break;
    schedule();
  }
  __set_current_state(TASK_RUNNING);
  return (ssize_t)iocb->ki_user_data;
}

int aio_complete(struct kiocb *iocb, long res, long res2) {
  if (is_sync_kiocb(iocb)) return complete_sync(iocb, res);

  struct kioctx *ctx = iocb->ki_ctx;
  spin_lock(&ctx->ctx_lock);
  if (iocb->ki_run_list.next && !list_empty(&iocb->ki_run_list)) list_del_init(&iocb->ki_run_list);
  add_event_locked(ctx, iocb, res, res2);
  const bool last = drop_reference_locked(iocb);
  wake_up(&ctx->wait);
  spin_unlock(&ctx->ctx_lock);
  if (last) free_request(iocb);
  return last;
}

int aio_put_req(struct kiocb *iocb) {
  spin_lock(&iocb->ki_ctx->ctx_lock);
  const bool last = drop_reference_locked(iocb);
  spin_unlock(&iocb->ki_ctx->ctx_lock);
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
  spin_lock(&ctx->ctx_lock);
  if (!kiocbTryKick(iocb)) queue_kicked_locked(ctx, iocb);
  spin_unlock(&ctx->ctx_lock);
}

void __put_ioctx(struct kioctx *ctx) {
  BUG_ON(ctx->reqs_active);
  kfree(ctx->ring_info.events);
  kfree(ctx);
}

struct kioctx *ukern_ioctx_alloc(unsigned max_reqs) {
  auto *ctx = static_cast<struct kioctx *>(kzalloc(sizeof(struct kioctx), GFP_KERNEL));
  if (!ctx) return nullptr;
  ctx->ring_info.nr = max_reqs + 1;
  ctx->ring_info.events = static_cast<struct io_event *>(
      kcalloc(ctx->ring_info.nr, sizeof(struct io_event), GFP_KERNEL));
  if (!ctx->ring_info.events) {
    kfree(ctx);
    return nullptr;
  }
  atomic_set(&ctx->users, 1);
  init_waitqueue_head(&ctx->wait);
  spin_lock_init(&ctx->ctx_lock);
  INIT_LIST_HEAD(&ctx->active_reqs);
  INIT_LIST_HEAD(&ctx->run_list);
  return ctx;
}

struct kiocb *ukern_aio_get_req(struct kioctx *ctx, struct file *file) {
  auto *iocb = static_cast<struct kiocb *>(kzalloc(sizeof(struct kiocb), GFP_KERNEL));
  if (!iocb) return nullptr;
  iocb->ki_users = 2;
  iocb->ki_ctx = ctx;
  iocb->ki_filp = file;
  spin_lock(&ctx->ctx_lock);
  const bool room = (unsigned)ctx->reqs_active < free_places_locked(&ctx->ring_info);
  if (room) {
    list_add(&iocb->ki_list, &ctx->active_reqs);
    get_ioctx(ctx);
    ctx->reqs_active++;
  }
  spin_unlock(&ctx->ctx_lock);
  if (room) return iocb;
  kfree(iocb);
  return nullptr;
}

ssize_t ukern_aio_run(struct kiocb *iocb) {
  const ssize_t result = run(iocb);
  aio_put_req(iocb);
  return result;
}

void ukern_aio_run_kicked(struct kioctx *ctx) {
  while (struct kiocb *iocb = take_kicked(ctx)) {
    run(iocb);
    aio_put_req(iocb);
  }
}

int ukern_aio_read_event(struct kioctx *ctx, struct io_event *event) {
  struct aio_ring_info *ring = &ctx->ring_info;
  spin_lock(&ctx->ctx_lock);
  const bool found = ring->head != ring->tail;
  if (found) {
    *event = ring->events[ring->head];
    ring->head = next_place(ring, ring->head);
  }
  spin_unlock(&ctx->ctx_lock);
  return found;
}
