/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Reports of what must not be: a BUG, a broken lock rule, a leak. A report is a text of several
 * lines that begins with what is wrong; it is built line by line and handed to the panic handler
 * whole. The default handler prints it and ends the process; where a handler returns, the kernel
 * goes on after report_end.
 *
 *   struct bug_report *report = report_begin("inode %lu is still in use", ino);
 *   report_stack(report, "taken at", &stack);
 *   report_end(report);
 *
 * Building one takes no kernel lock and needs no memory of the kernel's, so it may be done
 * anywhere. One report exists at a time: report_begin waits for the one before.
 */
#ifndef UKERN_SYNC_REPORT_H
#define UKERN_SYNC_REPORT_H

#include <stdarg.h>

struct call_stack;
struct bug_report;
struct task_struct;

#ifdef __cplusplus
extern "C" {
#endif

struct bug_report *report_begin(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
struct bug_report *report_vbegin(const char *fmt, va_list args)
    __attribute__((format(printf, 1, 0)));
/* One more line, indented. */
void report_line(struct bug_report *report, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));
/* A line "title:" and under it the symbolised way there. */
void report_stack(struct bug_report *report, const char *title, const struct call_stack *stack);
/* The way to here. */
void report_here(struct bug_report *report);
void report_end(struct bug_report *report);

/* Called with each whole report from now on; null: print it and abort. */
void set_panic_handler(void (*handler)(const char *report));

/* How many reports were ended since boot. */
unsigned long report_count(void);

#ifdef __cplusplus
}
#endif
#endif
