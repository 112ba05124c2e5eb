/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Assertions, which report their place and call stack through the panic handler. BUG never returns;
 * WARN_ON also logs the place, and continues if the handler returns.
 */
#ifndef _ASM_BUG_H
#define _ASM_BUG_H

#include <linux/compiler.h>

extern "C" {
void ukern_bug(const char *file, int line, const char *what) __attribute__((noreturn, cold));
int ukern_warn(const char *file, int line, const char *what) __attribute__((cold));
}

#define HAVE_ARCH_BUG
#define BUG() ukern_bug(__FILE__, __LINE__, "BUG")
#define BUG_ON(condition)                                                      \
  do {                                                                         \
    if (unlikely((condition) != 0)) ukern_bug(__FILE__, __LINE__, #condition); \
  } while (0)
#define WARN_ON(condition) \
  (unlikely((condition) != 0) ? ukern_warn(__FILE__, __LINE__, #condition) : 0)
#define WARN_ON_ONCE(condition)                                    \
  ({                                                               \
    static int said_;                                              \
    int hit_ = unlikely((condition) != 0);                         \
    if (hit_ && !__atomic_exchange_n(&said_, 1, __ATOMIC_RELAXED)) \
      (void)ukern_warn(__FILE__, __LINE__, #condition);            \
    hit_;                                                          \
  })

#endif
