// SPDX-License-Identifier: GPL-2.0
// Fault injection: makes a chosen allocation of the calling thread fail.
#include "ukern/mm/fault.h"

#include "ukern/testing/uk_fault.h"

namespace {

struct ThreadFaults {
  unsigned long passed;
  unsigned long fail_at;  // 0: none
  unsigned paused;
};

__thread ThreadFaults thread_faults __attribute__((tls_model("initial-exec")));

}  // namespace

extern "C" {

void uk_fault_arm(unsigned long n) {
  thread_faults.passed = 0;
  thread_faults.fail_at = n;
}

unsigned long uk_fault_count(void) {
  return thread_faults.passed;
}

int fault_point(void) {
  if (thread_faults.paused) return 0;
  if (++thread_faults.passed != thread_faults.fail_at) return 0;
  thread_faults.fail_at = 0;
  return 1;
}

void fault_pause(void) {
  thread_faults.paused++;
}

void fault_resume(void) {
  thread_faults.paused--;
}
}
