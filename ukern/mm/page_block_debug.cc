// SPDX-License-Identifier: GPL-2.0
// Pages of debug builds: a list of all pages with the call stacks of their allocations.
#include "ukern/mm/page_block.h"

#include <linux/kernel.h>
#include <linux/list.h>
#include <linux/spinlock.h>
#include <linux/string.h>

#include "ukern/sync/guard.h"
#include "ukern/sync/report.h"
#include "ukern/sync/stack.h"

namespace {

struct debug_page {
  struct page page;
  struct list_head all;  // under all_lock
  struct call_stack allocated_at;
};

DEFINE_SPINLOCK(all_lock);
LIST_HEAD(all_pages);

debug_page *debug_of(struct page *page) {
  return container_of(page, debug_page, page);
}

}  // namespace

struct page *page_block_alloc(unsigned order) {
  struct page *page = host_page(sizeof(debug_page), order);
  if (!page) return nullptr;
  call_stack_save(&debug_of(page)->allocated_at, 1);
  SpinGuard guard(all_lock);
  list_add_tail(&debug_of(page)->all, &all_pages);
  return page;
}

void page_block_free(struct page *page) {
  {
    SpinGuard guard(all_lock);
    list_del(&debug_of(page)->all);
  }
  host_page_free(page);
}

void page_blocks_exit(int) {
  while (!list_empty(&all_pages)) {
    debug_page *leaked = list_entry(all_pages.next, debug_page, all);
    struct page *page = &leaked->page;
    struct bug_report *report =
        report_begin("page %p of order %u is still allocated, count %d, index %lu, flags %lx",
                     page->virtual_, page->order, page_count(page), page->index, page->flags);
    report_stack(report, "allocated at", &leaked->allocated_at);
    report_end(report);
    page_block_free(page);
  }
}
