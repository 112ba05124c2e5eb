/* SPDX-License-Identifier: GPL-2.0 */
/* Completion of asynchronous requests in a file system's direct_IO. */
#ifndef UKERN_FS_DIRECT_IO_H
#define UKERN_FS_DIRECT_IO_H

#include <linux/aio.h>
#include <linux/fs.h>

/* Whether `done` of `count` bytes complete the request. The rest of a write goes through the page
 * cache; the caller reports an error. */
static inline int direct_io_is_all(int rw, ssize_t done, size_t count) {
  return done > 0 && (rw == READ || (size_t)done == count);
}

/* The result of a finished direct_IO. Completes an asynchronous request that is done in full; the
 * caller then returns -EIOCBQUEUED for it. */
static inline ssize_t direct_io_result(int rw, struct kiocb *iocb, ssize_t done, size_t count) {
  if (!is_sync_kiocb(iocb) && direct_io_is_all(rw, done, count)) aio_complete(iocb, done, 0);
  return done;
}

#endif
