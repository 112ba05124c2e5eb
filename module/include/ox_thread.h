/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A kernel thread with start and stop handshakes. The caller owns the record and keeps it until
 * ox_thread_kill has returned. The body returns when ox_thread_stopping is true; the caller of
 * ox_thread_kill must wake it to check. The thread runs with all signals blocked. All calls may
 * sleep.
 */
#ifndef OX_THREAD_H
#define OX_THREAD_H

#include "kernel.h"
#include "ox_guard.h"
#include "TypeDef.h"

#define OX_THREAD_NAME_LEN 64

enum ox_thread_flag {
  OX_THREAD_RUNNING = 1, /* set by the thread, never cleared afterwards */
  OX_THREAD_STOP = 2     /* the body has to return */
};

typedef struct ox_thread ox_thread_t;
typedef int (*ox_thread_cb_t)(ox_thread_t *thread);

struct ox_thread {
  struct completion t_up;   /* the thread is running */
  struct completion t_down; /* the body has returned */
  ox_s32_t t_error;         /* the owner's */
  ox_u16_t t_flags;         /* enum ox_thread_flag; accessed without a lock */
  ox_u16_t t_seqno;         /* the owner's number of the thread */
  ox_thread_cb_t t_cb;
  void *t_private; /* the owner's, for the body */
  struct task_struct *t_task;
  char t_comm[OX_THREAD_NAME_LEN];
};

inline bool ox_thread_stopping(const ox_thread_t *thread) {
  return ox_load(thread->t_flags) & OX_THREAD_STOP;
}

extern "C" {
/* Clears and fills the record; a name of 64 or more characters is cut. Returns 0; -EINVAL for a
 * null record. */
int ox_thread_init(ox_thread_t *thread, const char *name, ox_u16_t flags, ox_u16_t seqno,
                   ox_thread_cb_t body, void *context);
/*
 * Starts the thread. Returns 0; the error of the creation, with t_task null; -ETIMEDOUT if it was
 * not running after 5 s, but it will still start.
 */
[[nodiscard]] int ox_thread_create(ox_thread_t *thread);
/* Asks a started thread to stop, then waits without limit until its body has returned. Returns
 * 0. */
int ox_thread_kill(ox_thread_t *thread);
/* Prepares the record for another ox_thread_create. Returns 0. */
int ox_thread_destroy(ox_thread_t *thread);
}

#endif
