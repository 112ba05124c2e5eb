/* SPDX-License-Identifier: GPL-2.0 */
#ifndef UKERN_LINUX_UIO_H
#define UKERN_LINUX_UIO_H

#include <linux/compiler.h>
#include <linux/types.h>

struct iovec {
  void __user *iov_base;
  __kernel_size_t iov_len;
};

struct kvec {
  void *iov_base; /* kernel memory */
  size_t iov_len;
};

#define UIO_FASTIOV 8
#define UIO_MAXIOV 1024

/* The length of a vector whose sum has been checked for overflow. */
static inline size_t iov_length(const struct iovec *iov, unsigned long nr_segs) {
  size_t sum = 0;
  for (unsigned long seg = 0; seg < nr_segs; seg++) sum += iov[seg].iov_len;
  return sum;
}

#endif
