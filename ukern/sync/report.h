/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Reports of kernel errors: a BUG, a broken lock rule, a leak. A report is a text of several lines
 * that begins with the error; it is built line by line and passed to the panic handler as a whole.
 * The default handler prints it and aborts; if a handler returns, the kernel continues after
 * report_end.
 *
 *   struct bug_report *report = report_begin("inode %lu is still in use", ino);
 *   report_stack(report, "taken at", &stack);
 *   report_end(report);
 *
 * Building one takes no kernel lock and no kernel memory, so it is possible anywhere. One report
 * exists at a time: report_begin waits for the previous one.
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
/* Adds an indented line. */
void report_line(struct bug_report *report, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));
/* Adds a line "title:" and the symbolised call stack. */
void report_stack(struct bug_report *report, const char *title, const struct call_stack *stack);
/* Adds the current call stack. */
void report_here(struct bug_report *report);
void report_end(struct bug_report *report);

/* Sets the handler of whole reports; null: print and abort. */
void set_panic_handler(void (*handler)(const char *report));

/* Number of reports ended in this process. */
unsigned long report_count(void);

#ifdef __cplusplus
}
#endif
#endif
