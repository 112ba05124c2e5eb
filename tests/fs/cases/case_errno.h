// SPDX-License-Identifier: GPL-2.0
// The names of error numbers, which older C libraries do not give.

#ifndef CASE_ERRNO_H
#define CASE_ERRNO_H

#include <errno.h>
#include <stdio.h>

static inline const char *errno_name(int err) {
  static const struct {
    int number;
    const char *name;
  } names[] = {
      {EPERM, "EPERM"},
      {ENOENT, "ENOENT"},
      {ESRCH, "ESRCH"},
      {EINTR, "EINTR"},
      {EIO, "EIO"},
      {ENXIO, "ENXIO"},
      {E2BIG, "E2BIG"},
      {ENOEXEC, "ENOEXEC"},
      {EBADF, "EBADF"},
      {ECHILD, "ECHILD"},
      {EAGAIN, "EAGAIN"},
      {ENOMEM, "ENOMEM"},
      {EACCES, "EACCES"},
      {EFAULT, "EFAULT"},
      {ENOTBLK, "ENOTBLK"},
      {EBUSY, "EBUSY"},
      {EEXIST, "EEXIST"},
      {EXDEV, "EXDEV"},
      {ENODEV, "ENODEV"},
      {ENOTDIR, "ENOTDIR"},
      {EISDIR, "EISDIR"},
      {EINVAL, "EINVAL"},
      {ENFILE, "ENFILE"},
      {EMFILE, "EMFILE"},
      {ENOTTY, "ENOTTY"},
      {ETXTBSY, "ETXTBSY"},
      {EFBIG, "EFBIG"},
      {ENOSPC, "ENOSPC"},
      {ESPIPE, "ESPIPE"},
      {EROFS, "EROFS"},
      {EMLINK, "EMLINK"},
      {EPIPE, "EPIPE"},
      {EDOM, "EDOM"},
      {ERANGE, "ERANGE"},
      {EDEADLK, "EDEADLK"},
      {ENAMETOOLONG, "ENAMETOOLONG"},
      {ENOLCK, "ENOLCK"},
      {ENOSYS, "ENOSYS"},
      {ENOTEMPTY, "ENOTEMPTY"},
      {ELOOP, "ELOOP"},
      {ENODATA, "ENODATA"},
      {EOVERFLOW, "EOVERFLOW"},
      {ENOTSOCK, "ENOTSOCK"},
      {EOPNOTSUPP, "EOPNOTSUPP"},
      {EADDRINUSE, "EADDRINUSE"},
      {ECONNREFUSED, "ECONNREFUSED"},
      {ESTALE, "ESTALE"},
      {EDQUOT, "EDQUOT"},
      {ENOTCONN, "ENOTCONN"},
      {ECONNRESET, "ECONNRESET"},
      {ECANCELED, "ECANCELED"},
      {ETIMEDOUT, "ETIMEDOUT"},
      {EPROTOTYPE, "EPROTOTYPE"},
  };
  static char unknown[32];
  for (size_t i = 0; i < sizeof(names) / sizeof(names[0]); i++)
    if (names[i].number == err) return names[i].name;
  snprintf(unknown, sizeof(unknown), "error %d", err);
  return unknown;
}

#endif
