// SPDX-License-Identifier: GPL-2.0
#include "ox_guard.h"
#include "ox_types.h"

atomic_t g_total_alloc = ATOMIC_INIT(0);
atomic_t g_total_pages = ATOMIC_INIT(0);
ox_u32_t l_mem_maxpages;
/* Statically initialized: without ox_mem_init the limit is 0, and an allocation of a page waits. */
DECLARE_WAIT_QUEUE_HEAD(l_mem_waitq);

static ox_u32_t pages_out(void) {
  return static_cast<ox_u32_t>(atomic_read(&g_total_pages));
}

static bool over_limit(void) {
  return pages_out() > ox_load(l_mem_maxpages);
}

int ox_mem_init(void) {
  init_waitqueue_head(&l_mem_waitq);
  const unsigned long quarter = totalram_pages >> 2;
  ox_store(l_mem_maxpages, quarter + (static_cast<ox_u32_t>(quarter) >> 1));
  return 0;
}

int ox_mem_exit(void) {
  printk("Leaked alloc: %d\n", atomic_read(&g_total_alloc));
  return 0;
}

void *ox_malloc(ox_u64_t size, ox_u32_t flags) {
  atomic_inc(&g_total_alloc);
  void *block = __kmalloc(size, flags & ~__GFP_ZERO);
  if (block && (flags & __GFP_ZERO)) memset(block, 0, size);
  return block;
}

int ox_free(const void *block) {
  kfree(block);
  atomic_dec(&g_total_alloc);
  return 0;
}

struct page *ox_alloc_page(gfp_t flags) {
  struct page *page = alloc_pages(flags, 0);
  if (!page) return nullptr;
  atomic_inc(&g_total_pages);
  atomic_inc(&g_total_alloc);
  if (!over_limit()) return page;

  DEFINE_WAIT(wait);
  for (;;) {
    prepare_to_wait(&l_mem_waitq, &wait, TASK_INTERRUPTIBLE);
    if (!over_limit()) break;
    schedule();
  }
  finish_wait(&l_mem_waitq, &wait);
  return page;
}

void ox_free_page(struct page *page) {
  atomic_dec(&g_total_pages);
  atomic_dec(&g_total_alloc);
  __free_pages(page, 0);
  /* Waiters are woken only below three quarters of the limit, not one by one. */
  const ox_u32_t limit = ox_load(l_mem_maxpages);
  const ox_u32_t low = (limit >> 2) + (limit >> 1);
  if (pages_out() < low && waitqueue_active(&l_mem_waitq)) wake_up(&l_mem_waitq);
}
