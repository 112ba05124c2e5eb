/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Reference logs of debug builds: each counted object has a pointer to a log, which is allocated at
 * the first entry and freed with the object. It has the last UKERN_REFLOG_ENTRIES changes with
 * their call stacks, and counts the earlier ones. Entries may be added anywhere and by several
 * threads at once, and are no fault points. Release builds have none of it.
 */
#ifndef UKERN_SYNC_REFLOG_H
#define UKERN_SYNC_REFLOG_H

#include "ukern/sync/report.h"

struct reflog;

#define UKERN_REFLOG_ENTRIES 16

#if UKERN_DEBUG

#ifdef __cplusplus
extern "C" {
#endif
/* `change`: +1 taken, -1 dropped; `count`: the references after it. The call stack begins at the
 * caller's caller. */
void reflog_note(struct reflog **log, int change, int count);
void reflog_free(struct reflog *log); /* null is ignored */
/* Adds the log to a report: one paragraph per change, the oldest first. */
void report_reflog(struct bug_report *report, const struct reflog *log);
#ifdef __cplusplus
}
#endif

#else

static inline void reflog_note(struct reflog **, int, int) {}
static inline void reflog_free(struct reflog *) {}
static inline void report_reflog(struct bug_report *, const struct reflog *) {}

#endif
#endif
