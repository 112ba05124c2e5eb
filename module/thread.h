/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Sends committed records in the task that made the change, and runs the worker thread that serves
 * g_transq. g_transq.lock and a rule's node_lock are never held together.
 */
#ifndef TARN_THREAD_H
#define TARN_THREAD_H

#include "ox_thread.h"
#include "trans.h"

/* The thread's sleep in milliseconds if it is not woken. */
extern ox_u32_t g_trans_timeout;

/* Sends the record and frees it. Returns the last send's result. Sleeps. */
int trans_send(struct tarn_trans *trans);

/* Returns 0, or a negative error with no thread left. Sleeps. */
[[nodiscard]] int tarn_start_threads(void);
/* Wakes the threads and waits until they have ended. Returns 0. */
int tarn_stop_threads(void);
/* The body of the thread. */
int tarn_thd_trans(ox_thread_t *thread);

#endif
