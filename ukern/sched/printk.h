/* SPDX-License-Identifier: GPL-2.0 */
/* The kernel log, from the side of whoever reads it. */
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
 * The first line whose number is at least `from`, and as much of its text as fits, NUL added. Waits
 * at most `wait_ms` for it. 1 when there was one, 0 when not.
 */
int klog_read(unsigned long long from, unsigned wait_ms, struct klog_line *line, char *text,
              unsigned long size);
/* Empties the kernel log; line numbers begin at 0 again. */
void ukern_printk_reset(void);

#ifdef __cplusplus
}
#endif
#endif
