/* SPDX-License-Identifier: GPL-2.0 */
/* The cache line size, to which socket buffers are rounded up. */
#ifndef UKERN_LINUX_CACHE_H
#define UKERN_LINUX_CACHE_H

#define L1_CACHE_SHIFT 6
#define L1_CACHE_BYTES (1 << L1_CACHE_SHIFT)
#define SMP_CACHE_BYTES L1_CACHE_BYTES

#endif
