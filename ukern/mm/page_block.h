/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Where pages come from: each allocation is a block of the host with a struct page beside it. A
 * debug build gives every page back to the host at once, so that a sanitizer sees its use after
 * that, and knows where each was allocated; otherwise single pages come from larger blocks and wait
 * on a free list. Never sleeps.
 */
#ifndef UKERN_MM_PAGE_BLOCK_H
#define UKERN_MM_PAGE_BLOCK_H

#include <linux/mm.h>

#include "ukern/host/host.h"

/* 2^order pages; of the struct page only virtual_ is set. NULL without memory. */
struct page *page_block_alloc(unsigned order);
/* page->order says how many they are. */
void page_block_free(struct page *page);
/* At the end of the kernel: reports the pages that are still allocated, `pages` of them, and gives
 * the memory of the others back. */
void page_blocks_exit(int pages);

/* What the host gives for one allocation. `size`: of the structure that begins with the struct
 * page. */
static inline struct page *host_page(unsigned long size, unsigned order) {
  auto *page = static_cast<struct page *>(host_alloc(size, 16));
  if (!page) return nullptr;
  memset(static_cast<void *>(page), 0, size);
  page->virtual_ = host_alloc(PAGE_SIZE << order, PAGE_SIZE);
  if (page->virtual_) return page;
  host_free(page);
  return nullptr;
}

static inline void host_page_free(struct page *page) {
  host_free(page->virtual_);
  host_free(page);
}

#endif
