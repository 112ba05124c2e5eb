/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The memory of pages: each allocation is a block of the host with a struct page beside it. A debug
 * build returns every freed page to the host, so that a sanitizer sees a use after free, and
 * records where each was allocated. A release build takes single pages from larger blocks and has a
 * free list. Never sleeps.
 */
#ifndef UKERN_MM_PAGE_BLOCK_H
#define UKERN_MM_PAGE_BLOCK_H

#include <linux/mm.h>

#include "ukern/host/host.h"

/* Allocates 2^order pages; of the struct page only virtual_ is set. NULL without memory. */
struct page *page_block_alloc(unsigned order);
/* Frees 2^page->order pages. */
void page_block_free(struct page *page);
/* At shutdown: reports the pages that are still allocated, `pages` of them. If there are none, a
 * release build returns its blocks to the host. */
void page_blocks_exit(int pages);

/* Allocates pages from the host. `size`: of the structure that begins with the struct page. */
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
