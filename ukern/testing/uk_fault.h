/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Fault points: every allocation is one, numbered from 1 in the order in which the calling thread
 * reaches them. Only images for tests have them.
 */
#ifndef UKERN_TESTING_UK_FAULT_H
#define UKERN_TESTING_UK_FAULT_H

#ifdef __cplusplus
extern "C" {
#endif

/* Makes the n-th fault point from now fail, once; 0 disarms. */
void uk_fault_arm(unsigned long n);
/* Number of fault points that the calling thread has passed since the last uk_fault_arm. */
unsigned long uk_fault_count(void);

#ifdef __cplusplus
}
#endif
#endif
