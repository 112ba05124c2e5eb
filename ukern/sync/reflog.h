/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Who took and dropped references on an object, in debug builds: each counted object has a pointer
 * to a log that is made at the first note and freed with the object. It remembers the last
 * UKERN_REFLOG_ENTRIES changes with their places and how many there were before. Notes may be made
 * anywhere, from several threads at once, and are no fault points. In release builds everything
 * here is nothing.
 */
#ifndef UKERN_SYNC_REFLOG_H
#define UKERN_SYNC_REFLOG_H

#include "ukern/sync/report.h"

struct uk_reflog;

#define UKERN_REFLOG_ENTRIES 16

#if UKERN_DEBUG

#ifdef __cplusplus
extern "C" {
#endif
/* `change`: +1 taken, -1 dropped; `count`: the references after it. The place is the caller's
 * caller. */
void uk_reflog_note(struct uk_reflog **log, int change, int count);
void uk_reflog_free(struct uk_reflog *log); /* null is ignored */
/* Puts the log into a report: one paragraph per change, the oldest first. */
void uk_report_reflog(struct uk_report *report, const struct uk_reflog *log);
#ifdef __cplusplus
}
#endif

#else

static inline void uk_reflog_note(struct uk_reflog **, int, int) {}
static inline void uk_reflog_free(struct uk_reflog *) {}
static inline void uk_report_reflog(struct uk_report *, const struct uk_reflog *) {}

#endif
#endif
