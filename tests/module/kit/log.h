/* SPDX-License-Identifier: GPL-2.0 */
/* The kernel log from a line on. What the log has in all is asked with case_logged and its like. */
#ifndef TESTS_MODULE_KIT_LOG_H
#define TESTS_MODULE_KIT_LOG_H

#include "kernel.h"
#include "ukern/door/uk_core.h"

/* The number that the next line gets. */
inline unsigned long long log_end() {
  struct uk_klog_line line;
  char text[8];
  unsigned long long next = 0;
  while (uk_klog_read(next, 0, &line, text, sizeof(text)) == 1) next = line.number + 1;
  return next;
}

/* The number of the first line from `from` on that is `text`, or -1: to see which of two came
 * first. */
inline long log_line(const char *text, unsigned long long from = 0) {
  struct uk_klog_line line;
  char buf[512];
  while (uk_klog_read(from, 0, &line, buf, sizeof(buf)) == 1) {
    if (!strcmp(buf, text)) return static_cast<long>(line.number);
    from = line.number + 1;
  }
  return -1;
}

/* How many lines from number `from` on are `text`. */
inline int log_count(unsigned long long from, const char *text) {
  struct uk_klog_line line;
  char buf[512];
  int count = 0;
  while (uk_klog_read(from, 0, &line, buf, sizeof(buf)) == 1) {
    if (!strcmp(buf, text)) count++;
    from = line.number + 1;
  }
  return count;
}

/* What the worker thread writes comes when it likes; a lower write that fails says so, whatever
 * becomes of its capture. */
inline bool log_is_beside(const char *text) {
  return !strncmp(text, "tarn_thd_trans:", 15) || !strncmp(text, "tarn_write_lower:", 17);
}

/* How many lines there are from number `from` on, those beside the call left out. */
inline int log_length(unsigned long long from = 0) {
  struct uk_klog_line line;
  char buf[64];
  int count = 0;
  for (; uk_klog_read(from, 0, &line, buf, sizeof(buf)) == 1; from = line.number + 1)
    count += !log_is_beside(buf);
  return count;
}

/* Whether the lines from number `from` on are these and no others, in this order; those beside
 * the call are left out. */
template <unsigned N>
bool log_is(unsigned long long from, const char *const (&expected)[N]) {
  struct uk_klog_line line;
  char buf[512];
  unsigned at = 0;
  while (uk_klog_read(from, 0, &line, buf, sizeof(buf)) == 1) {
    from = line.number + 1;
    if (log_is_beside(buf)) continue;
    if (at == N || !expected[at] || strcmp(buf, expected[at])) return false;
    at++;
  }
  return at == N || !expected[at];
}

#endif
