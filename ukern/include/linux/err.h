/* SPDX-License-Identifier: GPL-2.0 */
/* Error numbers in the last page of the address space, so that a pointer is either an object or an
 * error. */
#ifndef _LINUX_ERR_H
#define _LINUX_ERR_H

#include <linux/compiler.h>
#include <linux/errno.h>

#define MAX_ERRNO 4095
#define IS_ERR_VALUE(x) unlikely((x) >= (unsigned long)-MAX_ERRNO)

static inline void *ERR_PTR(long error) {
  return (void *)error;
}

static inline long PTR_ERR(const void *ptr) {
  return (long)ptr;
}

static inline long IS_ERR(const void *ptr) {
  return IS_ERR_VALUE((unsigned long)ptr);
}

#endif
