// SPDX-License-Identifier: GPL-2.0
// The kernel-side half of the case framework, process build: see case.h.
#include <linux/kernel.h>
#include <linux/string.h>

#include "tests/harness/case.h"
#include "ukern/door/uk_core.h"

extern "C" {
extern const struct tarn_case *const __start_tarn_cases[];
extern const struct tarn_case *const __stop_tarn_cases[];

unsigned long uk_cases(const struct tarn_case *const **cases) {
  *cases = __start_tarn_cases;
  return __stop_tarn_cases - __start_tarn_cases;
}
}

void case_check_failed(const char *file, int line, const char *expression, long long left,
                       long long right) {
  char text[512];

  snprintf(text, sizeof(text), "%s: %lld (0x%llx) against %lld (0x%llx)", expression, left, left,
           right, right);
  host_case_failed(file, line, text);
}

void case_check_str_failed(const char *file, int line, const char *expression, const char *left,
                           const char *right) {
  char text[800];

  snprintf(text, sizeof(text), "%s: \"%s\" against \"%s\"", expression, left ? left : "(null)",
           right ? right : "(null)");
  host_case_failed(file, line, text);
}

int case_str_equal(const char *left, const char *right) {
  return left && right && strcmp(left, right) == 0;
}

// Each case has a kernel of its own, so the log holds exactly what was printed since the case's
// start.
template <typename Each>
static void each_line_that_is(const char *text, Each each) {
  struct uk_klog_line line;
  char buf[1024];
  unsigned long long next = 0;

  while (uk_klog_read(next, 0, &line, buf, sizeof(buf)) == 1) {
    if (strcmp(buf, text) == 0) each(line);
    next = line.number + 1;
  }
}

int case_log_count(const char *text) {
  int count = 0;
  each_line_that_is(text, [&count](const uk_klog_line &) { count++; });
  return count;
}

int case_log_level(const char *text) {
  int level = -1;
  each_line_that_is(text, [&level](const uk_klog_line &line) { level = (int)line.level; });
  return level;
}

int case_logged(const char *text) {
  return case_log_count(text) > 0;
}
