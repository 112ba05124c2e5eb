/* SPDX-License-Identifier: GPL-2.0 */
#ifndef UKERN_SCHED_PRINTK_H
#define UKERN_SCHED_PRINTK_H

/* Empties the kernel log; line numbers begin at 0 again. */
extern "C" void ukern_printk_reset(void);

#endif
