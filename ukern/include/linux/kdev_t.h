/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Device numbers. In the kernel a dev_t is 12 bits of major and 20 bits of minor number; user level
 * sees the encoded form (new_encode_dev), which stat and mknod use.
 */
#ifndef UKERN_LINUX_KDEV_T_H
#define UKERN_LINUX_KDEV_T_H

#include <linux/types.h>

#define MINORBITS 20
#define MINORMASK ((1U << MINORBITS) - 1)

#define MAJOR(dev) ((unsigned int)((dev) >> MINORBITS))
#define MINOR(dev) ((unsigned int)((dev)&MINORMASK))
#define MKDEV(major, minor) (((major) << MINORBITS) | (minor))

static inline u32 new_encode_dev(dev_t dev) {
  const unsigned minor = MINOR(dev);
  return (minor & 0xff) | (MAJOR(dev) << 8) | ((minor & ~0xffu) << 12);
}

static inline dev_t new_decode_dev(u32 dev) {
  return MKDEV((dev & 0xfff00) >> 8, (dev & 0xff) | ((dev >> 12) & 0xfff00));
}

#endif
