/* SPDX-License-Identifier: GPL-2.0 */
/* Shared by the files of ukern/mm, the boot and the test images. */
#ifndef UKERN_MM_MM_INTERNAL_H
#define UKERN_MM_MM_INTERNAL_H

#include <linux/fs.h>
#include <linux/mm.h>
#include <linux/pagemap.h>
#include <linux/writeback.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Start and end of each file's own state, in the order in which ukern_mm_init calls them. */
int page_alloc_init(void);
void page_alloc_exit(void); /* reports pages that are still allocated */
int radix_tree_cache_init(void);
void radix_tree_cache_exit(void);
void page_wait_init(void);
void writeback_init(void);

/* Start and stop the write-back threads, for file systems with dirty data. 0 or a negative error,
 * after which no thread runs. */
int writeback_threads_start(void);
void writeback_threads_stop(void);

/* Read without tree_lock, under which it changes. */
static inline unsigned long mapping_pages(const struct address_space *mapping) {
  return __atomic_load_n(&mapping->nrpages, __ATOMIC_RELAXED);
}
/* tree_lock is held for writing. */
static inline void mapping_pages_add(struct address_space *mapping, long change) {
  __atomic_store_n(&mapping->nrpages, mapping->nrpages + (unsigned long)change, __ATOMIC_RELAXED);
}

/* Number of dirty pages (see mapping_cap_account_dirty). */
extern atomic_t nr_file_dirty;

/* Limit of the page cache in pages; set before the kernel starts. */
extern unsigned long page_cache_limit;
/* Pages on the reclaimer's lists. */
unsigned long lru_pages(void);
/* Takes a page that is about to be freed off the reclaimer's list. */
void lru_cache_del(struct page *page);
/* Scans up to `scan` pages, the oldest first, and reclaims up to `want` of them. Returns the number
 * reclaimed. May sleep. */
unsigned long shrink_page_cache(unsigned long want, unsigned long scan);

/* Calls a_ops->invalidatepage, if there is one, for a page with private_ data: drops everything
 * from `offset` on. */
void invalidate_page_private(struct page *page, unsigned long offset);
/* Calls a_ops->releasepage to drop private_ data: non-zero when there is none left. */
int try_to_release_page(struct page *page, gfp_t gfp_mask);

/* Drops the pages of a range: mapped ones are unmapped, dirty ones lose their data. -EIO when one
 * cannot be dropped. May sleep. */
int invalidate_inode_pages2_range(struct address_space *mapping, pgoff_t start, pgoff_t end);

/* Direct I/O: cached data is written back first and, after a write, dropped. May sleep. */
ssize_t generic_file_direct_IO(int rw, struct kiocb *iocb, const struct iovec *iov, loff_t offset,
                               unsigned long nr_segs);
/*
 * Returns the length of a user vector for access of a type (VERIFY_*), cut at the first bad
 * segment. -EINVAL: a length is negative or the sum overflows. -EFAULT: the first segment is bad.
 */
ssize_t checked_length(const struct iovec *iov, unsigned long *nr_segs, int type);

#ifdef __cplusplus
}
#endif
#endif
