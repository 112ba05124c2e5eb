// SPDX-License-Identifier: GPL-2.0
// Pages. Each allocation is a block of the host with a struct page beside it. A debug build gives
// every page back to the host at once, so that a sanitizer sees its use after that, and knows where
// each was allocated; otherwise single pages come from larger blocks and wait on a free list.
//
// There is no upper limit: above totalram_pages, or when it has reached its own limit, the page
// cache is reclaimed first, and what cannot be reclaimed stays. Memory runs out when the host says
// so or a fault is injected.
#include <linux/gfp.h>
#include <linux/hash.h>
#include <linux/kernel.h>
#include <linux/list.h>
#include <linux/mm.h>
#include <linux/slab.h>
#include <linux/spinlock.h>
#include <linux/string.h>
#include <linux/swap.h>

#include "ukern/host/host.h"
#include "ukern/mm/fault.h"
#include "ukern/mm/mm_internal.h"
#include "ukern/sync/guard.h"
#include "ukern/sync/report.h"
#include "ukern/sync/stack.h"

unsigned long totalram_pages;

namespace {

// Few: what reclaim has looked at is still in the processor's cache when it is given out again.
constexpr unsigned kReclaimBatch = 16;

atomic_t nr_allocated;  // pages, not blocks

// Pages that are known by their address: what __get_free_pages gave and nobody freed yet.
constexpr unsigned kAddrBits = 10;
struct addr_bucket {
  spinlock_t lock;
  struct page *first;  // linked through lru, which such a page does not need
};
addr_bucket by_addr[1u << kAddrBits];

addr_bucket *bucket_of(unsigned long addr) {
  return &by_addr[hash_long(addr >> PAGE_SHIFT, kAddrBits)];
}

// What the host gives for one allocation. `size`: of the structure that begins with the struct
// page.
struct page *host_page(unsigned long size, unsigned order) {
  auto *page = static_cast<struct page *>(host_alloc(size, 16));
  if (!page) return nullptr;
  memset(static_cast<void *>(page), 0, size);
  page->virtual_ = host_alloc(PAGE_SIZE << order, PAGE_SIZE);
  if (page->virtual_) return page;
  host_free(page);
  return nullptr;
}

void host_page_free(struct page *page) {
  host_free(page->virtual_);
  host_free(page);
}

#if UKERN_DEBUG

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

struct page *block_alloc(unsigned order) {
  struct page *page = host_page(sizeof(debug_page), order);
  if (!page) return nullptr;
  call_stack_save(&debug_of(page)->allocated_at, 1);
  SpinGuard guard(all_lock);
  list_add_tail(&debug_of(page)->all, &all_pages);
  return page;
}

void block_free(struct page *page) {
  {
    SpinGuard guard(all_lock);
    list_del(&debug_of(page)->all);
  }
  host_page_free(page);
}

void report_leaks() {
  while (!list_empty(&all_pages)) {
    debug_page *leaked = list_entry(all_pages.next, debug_page, all);
    struct page *page = &leaked->page;
    struct bug_report *report =
        report_begin("page %p of order %u is still allocated, count %d, index %lu, flags %lx",
                     page->virtual_, page->order, page_count(page), page->index, page->flags);
    report_stack(report, "allocated at", &leaked->allocated_at);
    report_end(report);
    block_free(page);
  }
}

#else

constexpr unsigned kBatch = 64;  // pages of one block of the free list

struct page_batch {
  page_batch *next;
  void *block;
  struct page pages[kBatch];
};

DEFINE_SPINLOCK(free_lock);
LIST_HEAD(free_list);  // single pages, through lru
page_batch *batches;

struct page *take_free() {
  struct page *page = nullptr;
  SpinGuard guard(free_lock);
  if (!list_empty(&free_list)) {
    page = list_entry(free_list.next, struct page, lru);
    list_del(&page->lru);
  }
  return page;
}

// Makes a batch of pages: one for the caller, the others for the free list.
struct page *refill() {
  auto *batch = static_cast<page_batch *>(host_alloc(sizeof(page_batch), 16));
  if (!batch) return nullptr;
  memset(batch, 0, sizeof *batch);
  batch->block = host_alloc(PAGE_SIZE * kBatch, PAGE_SIZE);
  if (!batch->block) {
    host_free(batch);
    return nullptr;
  }
  SpinGuard guard(free_lock);
  batch->next = batches;
  batches = batch;
  for (unsigned i = 0; i < kBatch; i++) {
    batch->pages[i].virtual_ = static_cast<char *>(batch->block) + i * PAGE_SIZE;
    if (i) list_add_tail(&batch->pages[i].lru, &free_list);
  }
  return &batch->pages[0];
}

struct page *block_alloc(unsigned order) {
  if (order) return host_page(sizeof(struct page), order);
  struct page *page = take_free();
  return page ? page : refill();
}

void block_free(struct page *page) {
  if (page->order) {
    host_page_free(page);
    return;
  }
  SpinGuard guard(free_lock);
  list_add(&page->lru, &free_list);
}

void report_leaks() {
  if (int pages = atomic_read(&nr_allocated)) {
    report_end(report_begin("%d pages are still allocated", pages));
    return;  // their memory may be in use
  }
  INIT_LIST_HEAD(&free_list);
  while (page_batch *batch = batches) {
    batches = batch->next;
    host_free(batch->block);
    host_free(batch);
  }
}

#endif

// A page is on its bucket's list exactly while it has this bit.
constexpr int kByAddr = PG_arch_1;

void forget_addr(struct page *page) {
  addr_bucket *bucket = bucket_of(reinterpret_cast<unsigned long>(page->virtual_));
  SpinGuard guard(bucket->lock);
  struct page **link = &bucket->first;
  while (*link != page) link = reinterpret_cast<struct page **>(&(*link)->lru.next);
  *link = reinterpret_cast<struct page *>(page->lru.next);
}

void free_block(struct page *page) {
  if (test_bit(kByAddr, &page->flags)) forget_addr(page);
  const unsigned long bad = 1ul << PG_locked | 1ul << PG_lru | 1ul << PG_private |
                            1ul << PG_writeback | 1ul << PG_reserved;
  BUG_ON(page->flags & bad);
  BUG_ON(page->mapping);
  BUG_ON(page_mapped(page));
  atomic_sub(1 << page->order, &nr_allocated);
  block_free(page);
}

// Whether something cached has to go before more is allocated.
bool is_full() {
  return (unsigned long)atomic_read(&nr_allocated) >= totalram_pages ||
         lru_pages() >= page_cache_limit;
}

}  // namespace

int page_alloc_init(void) {
  for (addr_bucket &bucket : by_addr) {
    spin_lock_init(&bucket.lock);
    bucket.first = nullptr;
  }
  atomic_set(&nr_allocated, 0);
  return 0;
}

void page_alloc_exit(void) {
  report_leaks();
}

struct page *alloc_pages(gfp_t gfp_mask, unsigned int order) {
  might_sleep_if(gfp_mask & __GFP_WAIT);
  if (fault_point()) return nullptr;
  if ((gfp_mask & __GFP_WAIT) && is_full()) shrink_page_cache(kReclaimBatch, 16 * kReclaimBatch);
  struct page *page = block_alloc(order);
  if (!page) return nullptr;
  page->flags = 0;
  atomic_set(&page->_count, 1);
  atomic_set(&page->_mapcount, -1);
  page->private_ = 0;
  page->mapping = nullptr;
  page->index = 0;
  page->order = order;
  INIT_LIST_HEAD(&page->lru);
  atomic_add(1 << order, &nr_allocated);
  if (gfp_mask & __GFP_ZERO) memset(page->virtual_, 0, PAGE_SIZE << order);
  return page;
}

unsigned long __get_free_pages(gfp_t gfp_mask, unsigned int order) {
  struct page *page = alloc_pages(gfp_mask, order);
  if (!page) return 0;
  const auto addr = reinterpret_cast<unsigned long>(page->virtual_);
  addr_bucket *bucket = bucket_of(addr);
  set_bit(kByAddr, &page->flags);
  SpinGuard guard(bucket->lock);
  page->lru.next = reinterpret_cast<struct list_head *>(bucket->first);
  bucket->first = page;
  return addr;
}

unsigned long get_zeroed_page(gfp_t gfp_mask) {
  return __get_free_pages(gfp_mask | __GFP_ZERO, 0);
}

struct page *virt_to_page(const void *addr) {
  const unsigned long start = reinterpret_cast<unsigned long>(addr) & PAGE_MASK;
  addr_bucket *bucket = bucket_of(start);
  struct page *page;
  {
    SpinGuard guard(bucket->lock);
    page = bucket->first;
    while (page && page->virtual_ != reinterpret_cast<void *>(start))
      page = reinterpret_cast<struct page *>(page->lru.next);
  }
  BUG_ON(!page);
  return page;
}

void __free_pages(struct page *page, unsigned int order) {
  BUG_ON(page->order != order);
  if (put_page_testzero(page)) free_block(page);
}

void free_pages(unsigned long addr, unsigned int order) {
  if (addr) __free_pages(virt_to_page(reinterpret_cast<void *>(addr)), order);
}

void put_page(struct page *page) {
  if (!put_page_testzero(page)) return;
  lru_cache_del(page);
  free_block(page);
}
