/* SPDX-License-Identifier: GPL-2.0 */
/* What the direct_IO of a file system owes to asynchronous requests. */
#ifndef UKERN_FS_DIRECT_IO_H
#define UKERN_FS_DIRECT_IO_H

#include <linux/aio.h>
#include <linux/fs.h>

/* Whether `done` of `count` bytes end the request; the rest of a write goes through the page cache,
 * and an error is the caller's to tell. */
static inline int direct_io_is_all(int rw, ssize_t done, size_t count) {
  return done > 0 && (rw == READ || (size_t)done == count);
}

/* The result of a direct_IO that has done its work. The caller makes a whole asynchronous one
 * -EIOCBQUEUED and leaves its completion to us. */
static inline ssize_t direct_io_result(int rw, struct kiocb *iocb, ssize_t done, size_t count) {
  if (!is_sync_kiocb(iocb) && direct_io_is_all(rw, done, count)) aio_complete(iocb, done, 0);
  return done;
}

#endif
