/* SPDX-License-Identifier: GPL-2.0 */
/* Memory size and the order in which pages are reclaimed. There is no swap. */
#ifndef _LINUX_SWAP_H
#define _LINUX_SWAP_H

#include <linux/mm.h>

#ifdef __cplusplus
extern "C" {
#endif

extern unsigned long totalram_pages; /* pages of memory; uk_boot's ram_pages */

/* Puts a page that entered the page cache on the reclaimer's list, which holds no reference. Never
 * sleeps. */
void lru_cache_add(struct page *page);
/* The page was used: it is reclaimed later than pages that were not. Never sleeps. */
void mark_page_accessed(struct page *page);

#ifdef __cplusplus
}
#endif
#endif
