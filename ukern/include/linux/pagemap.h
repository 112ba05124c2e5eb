/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The page cache: at most one page per index of a file's mapping, found through mapping->page_tree.
 *
 * A lookup returns a page with a reference for the caller (page_cache_release). The lock of a page
 * orders I/O, truncation and validity; it is taken inside i_mutex, and never with a spin lock held.
 */
#ifndef _LINUX_PAGEMAP_H
#define _LINUX_PAGEMAP_H

#include <linux/compiler.h>
#include <linux/fs.h>
#include <linux/gfp.h>
#include <linux/highmem.h>
#include <linux/kernel.h>
#include <linux/list.h>
#include <linux/mm.h>
#include <asm/uaccess.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Bits of mapping->flags; the lower ones are the mapping's allocation flags. */
#define AS_EIO (__GFP_BITS_SHIFT + 0)    /* an asynchronous write failed */
#define AS_ENOSPC (__GFP_BITS_SHIFT + 1) /* ... without space */

static inline gfp_t mapping_gfp_mask(struct address_space *mapping) {
  return (gfp_t)(__atomic_load_n(&mapping->flags, __ATOMIC_RELAXED) & __GFP_BITS_MASK);
}
static inline void mapping_set_gfp_mask(struct address_space *m, gfp_t mask) {
  m->flags = (m->flags & ~(unsigned long)__GFP_BITS_MASK) | (unsigned long)mask;
}

#define PAGE_CACHE_SHIFT PAGE_SHIFT
#define PAGE_CACHE_SIZE PAGE_SIZE
#define PAGE_CACHE_MASK PAGE_MASK
#define PAGE_CACHE_ALIGN(addr) (((addr) + PAGE_CACHE_SIZE - 1) & PAGE_CACHE_MASK)

#define page_cache_get(page) get_page(page)
#define page_cache_release(page) put_page(page)

static inline struct page *page_cache_alloc(struct address_space *x) {
  return alloc_pages(mapping_gfp_mask(x), 0);
}

typedef int filler_t(void *, struct page *);

/* The page at an index, or NULL. The _lock form sleeps for the page lock and returns it locked. */
struct page *find_get_page(struct address_space *mapping, unsigned long index);
struct page *find_lock_page(struct address_space *mapping, unsigned long index);
/* As find_lock_page; adds a new page if there is none. NULL without memory. May sleep. */
struct page *find_or_create_page(struct address_space *mapping, unsigned long index,
                                 gfp_t gfp_mask);
static inline struct page *grab_cache_page(struct address_space *mapping, unsigned long index) {
  return find_or_create_page(mapping, index, mapping_gfp_mask(mapping));
}
/* Finds up to nr_pages pages from `start` on in index order; returns their number. */
unsigned find_get_pages(struct address_space *mapping, pgoff_t start, unsigned int nr_pages,
                        struct page **pages);
/* The same for pages with a tag (PAGECACHE_TAG_*); *index moves behind the last. */
unsigned find_get_pages_tag(struct address_space *mapping, pgoff_t *index, int tag,
                            unsigned int nr_pages, struct page **pages);

/*
 * The page at an index, filled by filler(data, page) if it was not up to date. The read has been
 * started but need not have finished. An error pointer on failure. May sleep.
 */
struct page *read_cache_page(struct address_space *mapping, unsigned long index, filler_t *filler,
                             void *data);
static inline struct page *read_mapping_page(struct address_space *mapping, unsigned long index,
                                             void *data) {
  filler_t *filler = (filler_t *)(void *)mapping->a_ops->readpage;
  return read_cache_page(mapping, index, filler, data);
}

/* Adds a new page, locked, with a reference of the cache's own: 0, -EEXIST, -ENOMEM. */
int add_to_page_cache(struct page *page, struct address_space *mapping, unsigned long index,
                      gfp_t gfp_mask);
int add_to_page_cache_lru(struct page *page, struct address_space *mapping, unsigned long index,
                          gfp_t gfp_mask);
/* Removes a locked page; the cache's reference goes to the caller. The __ form: tree_lock is
 * held. */
void remove_from_page_cache(struct page *page);
void __remove_from_page_cache(struct page *page);

static inline loff_t page_offset(struct page *page) {
  return ((loff_t)page->index) << PAGE_CACHE_SHIFT;
}
static inline pgoff_t linear_page_index(struct vm_area_struct *vma, unsigned long address) {
  return ((address - vma->vm_start) >> PAGE_SHIFT) + vma->vm_pgoff;
}

void __lock_page(struct page *page);
void unlock_page(struct page *page); /* a page that is not locked is a BUG */
static inline void lock_page(struct page *page) {
  might_sleep();
  if (TestSetPageLocked(page)) __lock_page(page);
}

void wait_on_page_bit(struct page *page, int bit_nr);
static inline void wait_on_page_locked(struct page *page) {
  if (PageLocked(page)) wait_on_page_bit(page, PG_locked);
}
static inline void wait_on_page_writeback(struct page *page) {
  if (PageWriteback(page)) wait_on_page_bit(page, PG_writeback);
}
/* Ends the I/O that set_page_writeback announced and wakes the waiters. */
void end_page_writeback(struct page *page);

#ifdef __cplusplus
}
#endif
#endif
