/* SPDX-License-Identifier: GPL-2.0 */
/* The ranges of user memory that the current task can access. */
#ifndef UKERN_SCHED_USER_MEMORY_H
#define UKERN_SCHED_USER_MEMORY_H

#ifdef __cplusplus
extern "C" {
#endif

/* Adds [start, start + len) until it is deleted or the task ends. 0 or -ENOMEM. */
int user_memory_add(const void *start, unsigned long len);
/* Deletes the range added last that begins at `start`. */
void user_memory_del(const void *start);
/* Bytes that the calling thread has copied in from user memory; 0 in release builds. */
unsigned long user_memory_copied(void);

#ifdef __cplusplus
}
#endif
#endif
