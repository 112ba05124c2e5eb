/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Fault points: every allocation first asks here whether a test wants it to fail. Test images count
 * fault points per calling thread (ukern/testing/uk_fault.h); in other images none fails.
 */
#ifndef UKERN_MM_FAULT_H
#define UKERN_MM_FAULT_H

#ifdef __cplusplus
extern "C" {
#endif

/* Non-zero when the allocation about to be made must fail. Never sleeps. */
int fault_point(void);

/* Between these two the calling thread's allocations neither count nor fail. They nest. */
void fault_pause(void);
void fault_resume(void);

#ifdef __cplusplus
}
#endif
#endif
