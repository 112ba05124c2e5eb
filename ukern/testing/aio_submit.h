/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Asynchronous requests from the submitter's side: a context, requests in it, and running them.
 * Nothing here checks what a program may do; that is the submitting call's.
 */
#ifndef UKERN_TESTING_AIO_SUBMIT_H
#define UKERN_TESTING_AIO_SUBMIT_H

#include <linux/aio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A context with one reference, for `max_reqs` requests whose results nobody has taken; NULL
 * without memory. */
struct kioctx *ukern_ioctx_alloc(unsigned max_reqs);
/*
 * A request with two references, the submission's and the operation's, which takes over one of the
 * file. The caller sets ki_retry, ki_obj.user, ki_user_data, ki_pos, ki_buf, ki_left and ki_nbytes.
 * NULL, and the file untouched, without memory or when the context is full.
 */
struct kiocb *ukern_aio_get_req(struct kioctx *ctx, struct file *file);
/* Calls ki_retry, completes the request unless it was queued or wants to be run again, and drops
 * the submission's reference. What ki_retry returned. */
ssize_t ukern_aio_run(struct kiocb *iocb);
/* Runs what has been kicked since, as ukern_aio_run does. May sleep. */
void ukern_aio_run_kicked(struct kioctx *ctx);
/* Takes the oldest result: 1, or 0 when there is none. */
int ukern_aio_read_event(struct kioctx *ctx, struct io_event *event);

#ifdef __cplusplus
}
#endif
#endif
