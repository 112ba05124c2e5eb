/* SPDX-License-Identifier: GPL-2.0 */
/* The event of a completed asynchronous request. */
#ifndef UKERN_LINUX_AIO_ABI_H
#define UKERN_LINUX_AIO_ABI_H

#include <linux/types.h>

struct io_event {
  __u64 data; /* the submitter's, from ki_user_data */
  __u64 obj;  /* the submitter's, from ki_obj.user */
  __s64 res;  /* bytes, or a negative error number */
  __s64 res2;
};

#endif
