// SPDX-License-Identifier: GPL-2.0
// The allocation that a test wants to fail.
#include "ukern/mm/fault.h"

#include "ukern/testing/uk_fault.h"

namespace {

struct ThreadFaults {
  unsigned long passed;
  unsigned long fail_at;  // 0: none
  unsigned paused;
};

__thread ThreadFaults mine __attribute__((tls_model("initial-exec")));

}  // namespace

extern "C" {

void uk_fault_arm(unsigned long n) {
  mine.passed = 0;
  mine.fail_at = n;
}

unsigned long uk_fault_count(void) {
  return mine.passed;
}

int fault_point(void) {
  if (mine.paused) return 0;
  if (++mine.passed != mine.fail_at) return 0;
  mine.fail_at = 0;
  return 1;
}

void fault_pause(void) {
  mine.paused++;
}

void fault_resume(void) {
  mine.paused--;
}
}
