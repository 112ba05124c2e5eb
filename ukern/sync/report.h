/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Reports of what must not be: a BUG, a broken lock rule, a leak. A report is a text of several
 * lines that begins with what is wrong; it is built line by line and handed to the panic handler
 * whole. The default handler prints it and ends the process; where a handler returns, the kernel
 * goes on after uk_report_end.
 *
 *   struct uk_report *report = uk_report_begin("inode %lu is still in use", ino);
 *   uk_report_stack(report, "taken at", &stack);
 *   uk_report_end(report);
 *
 * Building one takes no kernel lock and needs no memory of the kernel's, so it may be done
 * anywhere. One report exists at a time: uk_report_begin waits for the one before.
 */
#ifndef UKERN_SYNC_REPORT_H
#define UKERN_SYNC_REPORT_H

#include <stdarg.h>

struct uk_stack;
struct uk_report;
struct task_struct;

#ifdef __cplusplus
extern "C" {
#endif

struct uk_report *uk_report_begin(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
struct uk_report *uk_report_vbegin(const char *fmt, va_list args)
    __attribute__((format(printf, 1, 0)));
/* One more line, indented. */
void uk_report_line(struct uk_report *report, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));
/* A line "title:" and under it the symbolised way there. */
void uk_report_stack(struct uk_report *report, const char *title, const struct uk_stack *stack);
/* The way to here. */
void uk_report_here(struct uk_report *report);
void uk_report_end(struct uk_report *report);

/* How many reports were ended since boot. */
unsigned long uk_report_count(void);

#ifdef __cplusplus
}
#endif
#endif
