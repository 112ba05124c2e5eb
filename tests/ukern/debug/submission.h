/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A program's asynchronous requests: what io_submit and io_getevents do with a context, for cases
 * that run inside the kernel and whose buffers are the kernel's.
 */
#ifndef TESTS_UKERN_DEBUG_SUBMISSION_H
#define TESTS_UKERN_DEBUG_SUBMISSION_H

#include <linux/err.h>
#include <linux/errno.h>
#include <linux/file.h>
#include <linux/fs.h>
#include <asm/uaccess.h>

#include "ukern/testing/aio_submit.h"

/* Reads or writes until all has been moved, nothing more comes, or a call fails; what was moved
 * before a call that fails is not told. */
template <typename Operation>
inline ssize_t submission_repeat(struct kiocb *iocb, Operation operation) {
  ssize_t moved;
  do {
    moved = operation(iocb, iocb->ki_buf, iocb->ki_left, iocb->ki_pos);
    if (moved > 0) {
      iocb->ki_buf += moved;
      iocb->ki_left -= (size_t)moved;
    }
  } while (moved > 0 && iocb->ki_left > 0);
  return moved == 0 || iocb->ki_left == 0 ? (ssize_t)(iocb->ki_nbytes - iocb->ki_left) : moved;
}

/* A context. At its end each request must have been completed. */
class submission {
 public:
  explicit submission(unsigned max_reqs = 4) : ctx_(ukern_ioctx_alloc(max_reqs)) {}
  ~submission() {
    if (ctx_) put_ioctx(ctx_);
  }
  submission(const submission &) = delete;
  submission &operator=(const submission &) = delete;

  bool good() const { return ctx_ != nullptr; }
  struct kioctx *context() const {
    return ctx_;
  }

  /* 0 when the request has been taken; its result, and `data`, come as an event. */
  int read(struct file *file, void *buf, size_t size, loff_t pos, __u64 data) {
    if (!(file->f_mode & FMODE_READ)) return -EBADF;
    if (!file->f_op->aio_read) return -EINVAL;
    return submit(file, buf, size, pos, data, [](struct kiocb *iocb) -> ssize_t {
      return submission_repeat(iocb, iocb->ki_filp->f_op->aio_read);
    });
  }
  int write(struct file *file, const void *buf, size_t size, loff_t pos, __u64 data) {
    if (!(file->f_mode & FMODE_WRITE)) return -EBADF;
    if (!file->f_op->aio_write) return -EINVAL;
    return submit(file, const_cast<void *>(buf), size, pos, data,
                  [](struct kiocb *iocb) -> ssize_t {
                    return submission_repeat(iocb, iocb->ki_filp->f_op->aio_write);
                  });
  }
  /* Any road that a request may take. */
  int submit(struct file *file, void *buf, size_t size, loff_t pos, __u64 data,
             ssize_t (*retry)(struct kiocb *)) {
    get_file(file);
    struct kiocb *iocb = ukern_aio_get_req(ctx_, file);
    if (!iocb) {
      fput(file);
      return -EAGAIN;
    }
    iocb->ki_retry = retry;
    iocb->ki_obj.user = (void __user *)iocb;
    iocb->ki_user_data = data;
    iocb->ki_pos = pos;
    iocb->ki_buf = static_cast<char __user *>(buf);
    iocb->ki_left = iocb->ki_nbytes = size;
    ukern_aio_run(iocb);
    return 0;
  }

  /* Whether a request has been completed whose event nobody has taken. */
  bool has_event() const {
    spin_lock(&ctx_->ctx_lock);
    const bool found = ctx_->ring_info.head != ctx_->ring_info.tail;
    spin_unlock(&ctx_->ctx_lock);
    return found;
  }
  /* The next event; sleeps until there is one and runs what is kicked meanwhile. */
  struct io_event next() {
    struct io_event event;
    for (;;) {
      ukern_aio_run_kicked(ctx_);
      if (ukern_aio_read_event(ctx_, &event)) return event;
      wait_event(ctx_->wait, has_event() || has_kicked());
    }
  }

 private:
  bool has_kicked() const {
    spin_lock(&ctx_->ctx_lock);
    const bool found = !list_empty(&ctx_->run_list);
    spin_unlock(&ctx_->ctx_lock);
    return found;
  }

  struct kioctx *const ctx_;
};

#endif
