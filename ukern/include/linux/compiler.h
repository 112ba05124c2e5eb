/* SPDX-License-Identifier: GPL-2.0 */
/* Annotations of the kernel's sources, as far as a plain compiler needs them. */
#ifndef _LINUX_COMPILER_H
#define _LINUX_COMPILER_H

#ifndef UKERN_DEBUG
#error "UKERN_DEBUG must be given as 0 or 1"
#endif

#define __user
#define __kernel
#define __safe
#define __force
#define __iomem
#define __acquires(lock)
#define __releases(lock)
#define __acquire(lock) (void)0
#define __release(lock) (void)0
#define __chk_user_ptr(ptr) (void)0

#define likely(x) __builtin_expect(!!(x), 1)
#define unlikely(x) __builtin_expect(!!(x), 0)
#define barrier() __asm__ __volatile__("" : : : "memory")

#define __must_check __attribute__((warn_unused_result))
#define __attribute_pure__ __attribute__((pure))
#define __attribute_const__ __attribute__((const))
#define __always_inline inline __attribute__((always_inline))
#define noinline __attribute__((noinline))
#define __packed __attribute__((packed))

#endif
