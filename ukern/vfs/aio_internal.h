/* SPDX-License-Identifier: GPL-2.0 */
/* Shared by the completion and the submission of asynchronous requests. */
#ifndef UKERN_VFS_AIO_INTERNAL_H
#define UKERN_VFS_AIO_INTERNAL_H

#include <linux/aio.h>
#include <linux/list.h>
#include <linux/wait.h>

static inline unsigned next_slot(const struct aio_ring_info *ring, unsigned slot) {
  return slot + 1 == ring->nr ? 0 : slot + 1;
}

static inline unsigned free_slots_locked(const struct aio_ring_info *ring) {
  return (ring->head + ring->nr - 1 - ring->tail) % ring->nr;
}

// A running request is queued after ki_retry returns; one that is queued stays where it is.
static inline void queue_kicked_locked(struct kioctx *ctx, struct kiocb *iocb) {
  if (!list_empty(&iocb->ki_run_list)) return;
  list_add_tail(&iocb->ki_run_list, &ctx->run_list);
  wake_up(&ctx->wait);
}

#endif
