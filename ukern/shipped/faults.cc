// SPDX-License-Identifier: GPL-2.0
// No fault injection.
#include "ukern/mm/fault.h"

extern "C" {

int fault_point(void) {
  return 0;
}

void fault_pause(void) {}

void fault_resume(void) {}
}
