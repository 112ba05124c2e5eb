/* SPDX-License-Identifier: GPL-2.0 */
/* Memory size and the order of page reclaim. There is no swap. */
#ifndef _LINUX_SWAP_H
#define _LINUX_SWAP_H

#include <linux/mm.h>

#ifdef __cplusplus
extern "C" {
#endif

extern unsigned long totalram_pages; /* pages of memory; uk_boot's ram_pages */

/* Adds a page of the page cache to the reclaimer's list, which has no reference. Never sleeps. */
void lru_cache_add(struct page *page);
/* Marks a page used: it is reclaimed later than unused pages. Never sleeps. */
void mark_page_accessed(struct page *page);

#ifdef __cplusplus
}
#endif
#endif
