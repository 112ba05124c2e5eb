/* SPDX-License-Identifier: GPL-2.0 */
/* What the files of ukern/mm share with each other and with nobody else. */
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

/* The write-back threads, for file systems that leave something dirty. 0 or a negative error, after
 * which none runs. */
int writeback_threads_start(void);
void writeback_threads_stop(void);

/* Read at one moment, without the lock under which it changes. */
static inline unsigned long mapping_pages(const struct address_space *mapping) {
  return __atomic_load_n(&mapping->nrpages, __ATOMIC_RELAXED);
}
/* tree_lock is held for writing. */
static inline void mapping_pages_add(struct address_space *mapping, long change) {
  __atomic_store_n(&mapping->nrpages, mapping->nrpages + (unsigned long)change, __ATOMIC_RELAXED);
}

/* Pages that count as dirty (see mapping_cap_account_dirty) now. */
extern atomic_t nr_file_dirty;

/* What the page cache is kept below; set before the kernel starts. */
extern unsigned long page_cache_limit;
/* Pages on the reclaimer's lists. */
unsigned long lru_pages(void);
/* Takes a page that is about to be freed off the reclaimer's list. */
void lru_cache_del(struct page *page);
/* Looks at up to `scan` pages, the oldest first, and reclaims up to `want` of them: how many. May
 * sleep. */
unsigned long shrink_page_cache(unsigned long want, unsigned long scan);

/* Calls a_ops->invalidatepage, if there is one, for a page with private_ data: everything from
 * `offset` on goes. */
void invalidate_page_private(struct page *page, unsigned long offset);
/* Asks a_ops->releasepage to let go of private_ data: non-zero when there is none left. */
int try_to_release_page(struct page *page, gfp_t gfp_mask);

/* -EIO when a page of the range cannot be dropped. Mapped ones are unmapped, dirty ones lose their
 * data. May sleep. */
int invalidate_inode_pages2_range(struct address_space *mapping, pgoff_t start, pgoff_t end);

/* Direct I/O around the cache: what is cached is written first and, for a write, dropped after. May
 * sleep. */
ssize_t generic_file_direct_IO(int rw, struct kiocb *iocb, const struct iovec *iov, loff_t offset,
                               unsigned long nr_segs);
/*
 * Counts the bytes of a user vector for access of a type (VERIFY_*) and cuts it at the first bad
 * segment. -EINVAL: a length is negative or the sum overflows. -EFAULT: the first segment is bad.
 */
ssize_t checked_length(const struct iovec *iov, unsigned long *nr_segs, int type);

#ifdef __cplusplus
}
#endif
#endif
