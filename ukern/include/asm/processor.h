/* SPDX-License-Identifier: GPL-2.0 */
#ifndef _ASM_PROCESSOR_H
#define _ASM_PROCESSOR_H

#include <linux/compiler.h>

/* Inside a loop that waits for another processor. */
static inline void cpu_relax(void) {
#if defined(__x86_64__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  __asm__ __volatile__("yield" : : : "memory");
#else
  barrier();
#endif
}

#endif
