// SPDX-License-Identifier: GPL-2.0
/* Start and end of ukern/mm. */
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
  if (int error = writeback_init()) {
    radix_tree_cache_exit();
    page_alloc_exit();
    return error;
  }
  return 0;
}

void ukern_mm_exit(void) {
  writeback_exit();
  radix_tree_cache_exit();
  page_alloc_exit();
}
