// SPDX-License-Identifier: GPL-2.0
// The kernel-side half of the case framework on a real kernel: see tests/harness/case.h. A failed
// check is a line in the kernel log.
#include "module/kernel.h"

#include "tests/guest/cases.h"
#include "tests/harness/case.h"

extern "C" {
extern const struct tarn_case *const __start_tarn_cases[];
extern const struct tarn_case *const __stop_tarn_cases[];
}

namespace {

// Checks of one case may fail in several of its threads.
atomic_t failures = ATOMIC_INIT(0);
const struct tarn_case *selected;
char case_name[128];

}  // namespace

int case_count(void) {
  return static_cast<int>(__stop_tarn_cases - __start_tarn_cases);
}

const char *case_select(unsigned long number) {
  selected = nullptr;
  if (number >= static_cast<unsigned long>(case_count())) return nullptr;
  selected = __start_tarn_cases[number];
  snprintf(case_name, sizeof(case_name), "%s.%s", selected->suite, selected->name);
  return case_name;
}

int case_run(void) {
  if (!selected) return 1;
  atomic_set(&failures, 0);
  selected->run();
  return atomic_read(&failures);
}

extern "C" void host_case_failed(const char *file, int line, const char *text) {
  atomic_inc(&failures);
  printk(KERN_INFO "tarn_cases: %s: %s:%d: %s\n", case_name, file, line, text);
}

void case_check_failed(const char *file, int line, const char *expression, long long left,
                       long long right) {
  printk(KERN_INFO "tarn_cases: %s: %lld (0x%llx) against %lld (0x%llx)\n", expression, left, left,
         right, right);
  host_case_failed(file, line, "check failed");
}

// Null, and error pointers, which the functions that return texts may return as well.
static const char *shown(const char *text) {
  return !text ? "(null)" : IS_ERR(text) ? "(an error)" : text;
}

void case_check_str_failed(const char *file, int line, const char *expression, const char *left,
                           const char *right) {
  printk(KERN_INFO "tarn_cases: %s: \"%s\" against \"%s\"\n", expression, shown(left),
         shown(right));
  host_case_failed(file, line, "check failed");
}

int case_str_equal(const char *left, const char *right) {
  return left && right && !IS_ERR(left) && !IS_ERR(right) && strcmp(left, right) == 0;
}
