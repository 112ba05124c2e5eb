// SPDX-License-Identifier: GPL-2.0
#include "ox_guard.h"
#include "ox_types.h"
#include "tests/harness/case.h"
#include "ukern/door/uk_core.h"
#include "ukern/testing/uk_fault.h"

extern ox_u32_t l_mem_maxpages;
extern wait_queue_head_t l_mem_waitq;

namespace {

int total() {
  return atomic_read(&g_total_alloc);
}

struct waiter {
  struct completion done;
  struct page *page;
};

int allocate(void *context) {
  waiter *w = static_cast<waiter *>(context);
  w->page = ox_alloc_page(GFP_KERNEL);
  complete(&w->done);
  return 0;
}

bool came(waiter &w, unsigned ms) {
  return wait_for_completion_timeout(&w.done, msecs_to_jiffies(ms)) != 0;
}

/* Comes back when the allocation waits: true; or is through: false. */
bool waits(waiter &w) {
  while (!came(w, 1)) {
    if (waitqueue_active(&l_mem_waitq)) return true;
  }
  return false;
}

void start(waiter &w, int (*body)(void *) = allocate) {
  w.page = nullptr;
  init_completion(&w.done);
  kthread_run(body, &w, "page_waiter");
}

}  // namespace

CASE(ox_mem, cleared_memory_does_not_need_the_allocator_to_clear) {
  const int before = total();
  for (int round = 0; round < 4; ++round) {
    unsigned char *block = static_cast<unsigned char *>(ox_malloc(333, GFP_KERNEL | __GFP_ZERO));
    REQUIRE_TRUE(block != nullptr);
    int dirty = 0;
    for (int i = 0; i < 333; ++i) dirty += block[i] != 0;
    EXPECT_EQ(dirty, 0);
    memset(block, 0xFF, 333);
    EXPECT_EQ(total(), before + 1);
    EXPECT_EQ(ox_free(block), 0);
  }
  EXPECT_EQ(total(), before);
}

CASE(ox_mem, a_failed_allocation_stays_counted) {
  const int before = total();
  uk_fault_arm(1);
  void *block = ox_malloc(100, GFP_KERNEL | __GFP_ZERO);
  uk_fault_arm(0);
  EXPECT_TRUE(block == nullptr);
  EXPECT_EQ(total(), before + 1);
  EXPECT_EQ(ox_free(nullptr), 0);
  EXPECT_EQ(total(), before);
}

CASE(ox_mem, a_failed_page_is_not_counted) {
  const int before = total();
  uk_fault_arm(1);
  struct page *page = ox_alloc_page(GFP_KERNEL);
  uk_fault_arm(0);
  EXPECT_TRUE(page == nullptr);
  EXPECT_EQ(total(), before);
  EXPECT_EQ(atomic_read(&g_total_pages), 0);
}

CASE(ox_mem, the_limit_is_three_eighths_of_the_memory) {
  EXPECT_EQ(ox_mem_init(), 0);
  EXPECT_EQ(l_mem_maxpages, totalram_pages / 4 + totalram_pages / 4 / 2);
  struct page *page = ox_alloc_page(GFP_KERNEL);
  REQUIRE_TRUE(page != nullptr);
  EXPECT_EQ(atomic_read(&g_total_pages), 1);
  ox_free_page(page);
  EXPECT_EQ(atomic_read(&g_total_pages), 0);
}

CASE(ox_mem, the_leak_line) {
  const int before = total();
  char line[64];
  snprintf(line, sizeof(line), "Leaked alloc: %d", before);
  EXPECT_EQ(ox_mem_exit(), 0);
  EXPECT_TRUE(case_logged(line));
}

CASE(ox_mem, without_a_limit_an_allocation_waits_until_all_are_returned) {
  ox_mem_init();
  ox_store(l_mem_maxpages, 1);
  struct page *held = ox_alloc_page(GFP_KERNEL);
  ox_store(l_mem_maxpages, 0);
  waiter w;
  start(w);
  REQUIRE_TRUE(waits(w));
  /* Its own page is counted too, so that nothing lets it go but a higher limit. */
  EXPECT_EQ(atomic_read(&g_total_pages), 2);
  ox_free_page(held);
  EXPECT_FALSE(came(w, 50));
  ox_store(l_mem_maxpages, 8);
  wake_up(&l_mem_waitq);
  EXPECT_TRUE(came(w, 5000));
  ox_free_page(w.page);
}

/* Nobody has set a limit: it is 0, and the queue to wait on is there all the same. */
CASE(ox_mem, without_a_start_of_the_accounting_a_page_waits) {
  ox_store(l_mem_maxpages, 0);
  waiter w;
  start(w);
  REQUIRE_TRUE(waits(w));
  EXPECT_FALSE(came(w, 50));
  ox_store(l_mem_maxpages, 1);
  wake_up(&l_mem_waitq);
  EXPECT_TRUE(came(w, 5000));
  ox_free_page(w.page);
  EXPECT_EQ(atomic_read(&g_total_pages), 0);
}

CASE(ox_mem, a_signal_does_not_end_the_wait) {
  ox_mem_init();
  ox_store(l_mem_maxpages, 0);
  waiter w;
  start(w, [](void *context) {
    {
      spin_irq_guard guard(current->sighand->siglock);
      sigemptyset(&current->blocked);
      recalc_sigpending();
    }
    EXPECT_EQ(send_sig(SIGUSR1, current, 1), 0);
    EXPECT_TRUE(signal_pending(current));
    return allocate(context);
  });
  EXPECT_FALSE(came(w, 50));
  ox_store(l_mem_maxpages, 8);
  wake_up(&l_mem_waitq);
  EXPECT_TRUE(came(w, 5000));
  ox_free_page(w.page);
}

namespace {

/* As many pages are taken as the limit allows, and one more, and given back until there are `low`,
 * which is still too many to go on, and then one more. */
void drain(unsigned limit, int low) {
  ox_mem_init();
  ox_store(l_mem_maxpages, limit);
  struct page *pages[8];
  REQUIRE_TRUE(limit <= ARRAY_SIZE(pages));
  for (unsigned i = 0; i < limit; ++i) {
    pages[i] = ox_alloc_page(GFP_KERNEL);
    REQUIRE_TRUE(pages[i] != nullptr);
  }
  waiter w;
  start(w);
  REQUIRE_TRUE(waits(w));
  EXPECT_EQ(atomic_read(&g_total_pages), (int)limit + 1);
  unsigned freed = 0;
  while (atomic_read(&g_total_pages) > low) ox_free_page(pages[freed++]);
  EXPECT_FALSE(came(w, 50));
  ox_free_page(pages[freed++]);
  EXPECT_TRUE(came(w, 5000));
  EXPECT_TRUE(w.page != nullptr);
  while (freed < limit) ox_free_page(pages[freed++]);
  ox_free_page(w.page);
  EXPECT_EQ(atomic_read(&g_total_pages), 0);
}

}  // namespace

CASE(ox_mem, waiters_go_on_when_a_quarter_of_the_limit_has_drained) {
  drain(8, 2 + 4);
}

CASE(ox_mem, the_quarter_and_the_half_are_rounded_down_each) {
  drain(7, 1 + 3);
}
