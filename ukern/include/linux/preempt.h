/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The host may preempt every thread at any time. So this only counts, in debug builds, for the
 * check against sleeping in atomic context.
 */
#ifndef _LINUX_PREEMPT_H
#define _LINUX_PREEMPT_H

#include <linux/linkage.h>

#if UKERN_DEBUG
extern "C" {
void ukern_preempt_add(int count);
int ukern_preempt_count(void);
}
#define preempt_count() ukern_preempt_count()
#define preempt_disable() ukern_preempt_add(1)
#define preempt_enable() ukern_preempt_add(-1)
#else
#define preempt_count() 0
#define preempt_disable() barrier()
#define preempt_enable() barrier()
#endif

#endif
