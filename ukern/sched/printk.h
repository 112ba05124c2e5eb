/* SPDX-License-Identifier: GPL-2.0 */
/* Reading the kernel log. */
#ifndef UKERN_SCHED_PRINTK_H
#define UKERN_SCHED_PRINTK_H

#ifdef __cplusplus
extern "C" {
#endif

struct klog_line {
  unsigned long long number; /* 0, 1, 2, ... since boot */
  unsigned long long us;     /* wall clock, microseconds since the epoch */
  unsigned level;            /* 0..7 */
  unsigned len;              /* bytes of text */
};

/*
 * Reads the first line whose number is at least `from`, and as much of its text as fits,
 * NUL-terminated. Waits at most `wait_ms`. 1 if there is one, else 0.
 */
int klog_read(unsigned long long from, unsigned wait_ms, struct klog_line *line, char *text,
              unsigned long size);
/* Empties the kernel log; line numbers begin at 0 again. */
void ukern_printk_reset(void);

#ifdef __cplusplus
}
#endif
#endif
