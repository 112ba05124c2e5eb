// SPDX-License-Identifier: GPL-2.0
// Start and end of ukern/mm.
#include <linux/errno.h>

#include "ukern/mm/mm_internal.h"
#include "ukern/sched/boot.h"

int ukern_mm_init(void) {
  page_wait_init();
  if (int error = page_alloc_init()) return error;
  if (int error = radix_tree_cache_init()) {
    page_alloc_exit();
    return error;
  }
  writeback_init();
  return 0;
}

void ukern_mm_exit(void) {
  radix_tree_cache_exit();
  page_alloc_exit();
}
