/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Submission of asynchronous requests: a context, requests in it, and running them. Permissions are
 * not checked here; the submitting call does that.
 */
#ifndef UKERN_TESTING_AIO_SUBMIT_H
#define UKERN_TESTING_AIO_SUBMIT_H

#include <linux/aio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A context with one reference, for `max_reqs` requests, those with unread results included; NULL
 * without memory. */
struct kioctx *ukern_ioctx_alloc(unsigned max_reqs);
/*
 * A request with two references, the submission's and the operation's. It takes over a reference on
 * the file. The caller sets ki_retry, ki_obj.user, ki_user_data, ki_pos, ki_buf, ki_left and
 * ki_nbytes. NULL without memory or when the context is full; the file's reference is then the
 * caller's.
 */
struct kiocb *ukern_aio_get_req(struct kioctx *ctx, struct file *file);
/* Calls ki_retry, completes the request unless it was queued or must be retried, and drops the
 * submission's reference. Returns the result of ki_retry. */
ssize_t ukern_aio_run(struct kiocb *iocb);
/* Runs the kicked requests as ukern_aio_run does. May sleep. */
void ukern_aio_run_kicked(struct kioctx *ctx);
/* Takes the oldest result: 1, or 0 when there is none. */
int ukern_aio_read_event(struct kioctx *ctx, struct io_event *event);

#ifdef __cplusplus
}
#endif
#endif
