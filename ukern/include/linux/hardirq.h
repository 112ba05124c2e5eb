/* SPDX-License-Identifier: GPL-2.0 */
/* There are no interrupts: nothing ever runs in interrupt context. */
#ifndef _LINUX_HARDIRQ_H
#define _LINUX_HARDIRQ_H

#include <linux/preempt.h>

#define in_irq() 0
#define in_softirq() 0
#define in_interrupt() 0
/* True while the caller holds a spin lock; known in debug builds only. */
#define in_atomic() (preempt_count() != 0)

#endif
