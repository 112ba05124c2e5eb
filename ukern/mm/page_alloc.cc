// SPDX-License-Identifier: GPL-2.0
// Pages: their count, references and addresses. Their memory is in page_block_debug.cc or
// page_block_release.cc.
//
// There is no hard limit: at totalram_pages, or at the page cache's own limit, an allocation first
// reclaims cached pages as far as possible. Allocations fail only when the host has no memory or a
// fault is injected.
#include <linux/gfp.h>
#include <linux/hash.h>
#include <linux/kernel.h>
#include <linux/list.h>
#include <linux/mm.h>
#include <linux/slab.h>
#include <linux/spinlock.h>
#include <linux/string.h>
#include <linux/swap.h>

#include "ukern/mm/fault.h"
#include "ukern/mm/mm_internal.h"
#include "ukern/mm/page_block.h"
#include "ukern/sync/guard.h"

unsigned long totalram_pages;

namespace {

// Few, so that reclaimed pages are still in the CPU cache when they are allocated again.
constexpr unsigned kReclaimBatch = 16;

atomic_t nr_allocated;  // pages, not blocks

// Pages by address: those allocated by __get_free_pages.
constexpr unsigned kAddrBits = 10;
struct addr_bucket {
  spinlock_t lock;
  struct page *first;  // linked through lru, which such a page does not use
};
addr_bucket by_addr[1u << kAddrBits];

addr_bucket *bucket_of(unsigned long addr) {
  return &by_addr[hash_long(addr >> PAGE_SHIFT, kAddrBits)];
}

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
  page_block_free(page);
}

// Whether cached pages must be reclaimed before an allocation.
bool is_full() {
  return static_cast<unsigned long>(atomic_read(&nr_allocated)) >= totalram_pages ||
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
  page_blocks_exit(atomic_read(&nr_allocated));
}

struct page *alloc_pages(gfp_t gfp_mask, unsigned int order) {
  might_sleep_if(gfp_mask & __GFP_WAIT);
  if (fault_point()) return nullptr;
  if ((gfp_mask & __GFP_WAIT) && is_full()) shrink_page_cache(kReclaimBatch, 16 * kReclaimBatch);
  struct page *page = page_block_alloc(order);
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
