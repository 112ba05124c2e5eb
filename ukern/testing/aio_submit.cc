// SPDX-License-Identifier: GPL-2.0
// Contexts of asynchronous requests, and running submitted requests.
#include "ukern/testing/aio_submit.h"

#include <linux/file.h>
#include <linux/kernel.h>
#include <linux/sched.h>
#include <linux/slab.h>

#include "ukern/sync/guard.h"
#include "ukern/vfs/aio_internal.h"

namespace {

// Calls ki_retry; the caller has a reference. One run of a request at a time.
ssize_t run(struct kiocb *iocb) {
  struct kioctx *ctx = iocb->ki_ctx;
  kiocbClearKicked(iocb);
  const ssize_t result = iocb->ki_retry(iocb);
  if (result != -EIOCBRETRY && result != -EIOCBQUEUED) aio_complete(iocb, result, 0);
  if (result == -EIOCBRETRY) {
    SpinGuard guard(ctx->ctx_lock);
    INIT_LIST_HEAD(&iocb->ki_run_list);
    if (kiocbIsKicked(iocb)) queue_kicked_locked(ctx, iocb);
  }
  return result;
}

// Takes the next kicked request off the list, with a reference; it counts as running.
struct kiocb *take_kicked(struct kioctx *ctx) {
  struct kiocb *iocb = nullptr;
  SpinGuard guard(ctx->ctx_lock);
  if (!list_empty(&ctx->run_list)) {
    iocb = list_entry(ctx->run_list.next, struct kiocb, ki_run_list);
    list_del(&iocb->ki_run_list);
    iocb->ki_run_list.next = iocb->ki_run_list.prev = nullptr;
    __atomic_add_fetch(&iocb->ki_users, 1, __ATOMIC_RELAXED);
  }
  return iocb;
}

}  // namespace

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
  {
    SpinGuard guard(ctx->ctx_lock);
    if (static_cast<unsigned>(ctx->reqs_active) < free_slots_locked(&ctx->ring_info)) {
      list_add(&iocb->ki_list, &ctx->active_reqs);
      get_ioctx(ctx);
      ctx->reqs_active++;
      return iocb;
    }
  }
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
  SpinGuard guard(ctx->ctx_lock);
  const bool found = ring->head != ring->tail;
  if (found) {
    *event = ring->events[ring->head];
    ring->head = next_slot(ring, ring->head);
  }
  return found;
}
