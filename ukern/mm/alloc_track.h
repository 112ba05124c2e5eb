/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Debug builds: a record of every allocated block, with its owner and call stack. Owns its records,
 * takes no kernel lock, never sleeps. Release builds record and check nothing.
 */
#ifndef UKERN_MM_ALLOC_TRACK_H
#define UKERN_MM_ALLOC_TRACK_H

#include <linux/types.h>

struct bug_report;

#if UKERN_DEBUG

#ifdef __cplusplus
extern "C" {
#endif

/* `owner`: the cache, or null for kmalloc. False without memory. */
bool alloc_track_add(const void *block, size_t size, const void *owner);
/* Removes the block's record and sets its size; false, with a report, if `owner` has not allocated
 * it. */
bool alloc_track_remove(const void *block, const void *owner, const char *owner_name, size_t *size);
/* Number of allocated blocks of the owner; the first few are added to the report, if there is
 * one. */
unsigned long alloc_track_count(const void *owner, struct bug_report *report);
/* Returns every allocated block to the host. */
void alloc_track_free_all(void);

#ifdef __cplusplus
}
#endif

#else

static inline bool alloc_track_add(const void *, size_t, const void *) {
  return true;
}
static inline bool alloc_track_remove(const void *, const void *, const char *, size_t *) {
  return true;
}
static inline unsigned long alloc_track_count(const void *, struct bug_report *) {
  return 0;
}
static inline void alloc_track_free_all(void) {}

#endif
#endif
