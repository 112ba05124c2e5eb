// SPDX-License-Identifier: GPL-2.0
// Removing pages from the cache: truncation, which loses data, and invalidation, which does not.
#include <linux/fs.h>
#include <linux/highmem.h>
#include <linux/kernel.h>
#include <linux/pagemap.h>
#include <linux/pagevec.h>
#include <linux/sched.h>
#include <linux/signal.h>

#include "ukern/mm/mm_internal.h"
#include "ukern/sync/guard.h"

void invalidate_page_private(struct page *page, unsigned long offset) {
  const auto *a_ops = page->mapping->a_ops;
  if (a_ops->invalidatepage) a_ops->invalidatepage(page, offset);
}

int try_to_release_page(struct page *page, gfp_t gfp_mask) {
  BUG_ON(!PageLocked(page));
  if (PageWriteback(page)) return 0;
  struct address_space *mapping = page->mapping;
  return mapping && mapping->a_ops->releasepage && mapping->a_ops->releasepage(page, gfp_mask);
}

namespace {

// The page is locked.
void truncate_complete_page(struct address_space *mapping, struct page *page) {
  if (page->mapping != mapping) return;
  if (PagePrivate(page)) invalidate_page_private(page, 0);
  clear_page_dirty(page);
  ClearPageUptodate(page);
  ClearPageMappedToDisk(page);
  remove_from_page_cache(page);
  page_cache_release(page);  // the cache's reference
}

void truncate_partial_page(struct address_space *mapping, pgoff_t index, unsigned from) {
  struct page *page = find_lock_page(mapping, index);
  if (!page) return;
  wait_on_page_writeback(page);
  memclear_highpage_flush(page, from, PAGE_CACHE_SIZE - from);
  if (PagePrivate(page)) invalidate_page_private(page, from);
  unlock_page(page);
  page_cache_release(page);
}

// Removes a locked page that is clean and used only by the cache and the caller.
int invalidate_complete_page(struct address_space *mapping, struct page *page) {
  if (page->mapping != mapping) return 0;
  if (PagePrivate(page) && !try_to_release_page(page, 0)) return 0;
  {
    WriteGuard guard(mapping->tree_lock);
    if (PageDirty(page) || page_count(page) != 2) return 0;
    __remove_from_page_cache(page);
  }
  ClearPageUptodate(page);
  page_cache_release(page);  // the cache's reference
  return 1;
}

}  // namespace

void truncate_inode_pages_range(struct address_space *mapping, loff_t lstart, loff_t lend) {
  const auto start = static_cast<pgoff_t>((lstart + PAGE_CACHE_SIZE - 1) >> PAGE_CACHE_SHIFT);
  const auto partial = static_cast<unsigned>(lstart & (PAGE_CACHE_SIZE - 1));
  const auto end = static_cast<pgoff_t>(lend >> PAGE_CACHE_SHIFT);
  if (mapping_pages(mapping) == 0) return;
  BUG_ON((lend & (PAGE_CACHE_SIZE - 1)) != PAGE_CACHE_SIZE - 1);

  if (partial) truncate_partial_page(mapping, start - 1, partial);

  // Repeats from the start until nothing is found: pages may appear behind us while we sleep on
  // one.
  struct pagevec pvec;
  pagevec_init(&pvec, 0);
  pgoff_t next = start;
  for (;;) {
    cond_resched();
    if (!pagevec_lookup(&pvec, mapping, next, PAGEVEC_SIZE) || pvec.pages[0]->index > end) {
      pagevec_release(&pvec);
      if (next == start) return;
      next = start;
      continue;
    }
    for (unsigned i = 0; i < pagevec_count(&pvec) && pvec.pages[i]->index <= end; i++) {
      struct page *page = pvec.pages[i];
      lock_page(page);
      wait_on_page_writeback(page);
      next = page->index + 1;
      truncate_complete_page(mapping, page);
      unlock_page(page);
    }
    pagevec_release(&pvec);
  }
}

void truncate_inode_pages(struct address_space *mapping, loff_t lstart) {
  truncate_inode_pages_range(mapping, lstart, static_cast<loff_t>(-1));
}

unsigned long invalidate_mapping_pages(struct address_space *mapping, pgoff_t start, pgoff_t end) {
  struct pagevec pvec;
  pagevec_init(&pvec, 0);
  unsigned long removed = 0;
  pgoff_t next = start;
  while (next <= end && pagevec_lookup(&pvec, mapping, next, PAGEVEC_SIZE)) {
    for (unsigned i = 0; i < pagevec_count(&pvec); i++) {
      struct page *page = pvec.pages[i];
      next = page->index + 1;
      if (page->index > end) break;
      if (TestSetPageLocked(page)) continue;
      if (!PageDirty(page) && !PageWriteback(page) && !page_mapped(page))
        removed += static_cast<unsigned long>(invalidate_complete_page(mapping, page));
      unlock_page(page);
    }
    pagevec_release(&pvec);
    if (next == 0) break;  // behind the very last index
  }
  return removed;
}

unsigned long invalidate_inode_pages(struct address_space *mapping) {
  return invalidate_mapping_pages(mapping, 0, ~0ul);
}

// Drops a locked page. 0, or -EIO if it cannot be dropped.
static int drop_page(struct address_space *mapping, struct page *page) {
  wait_on_page_writeback(page);
  if (page_mapped(page)) unmap_mapping_range(mapping, page_offset(page), PAGE_CACHE_SIZE, 0);
  const int was_dirty = test_clear_page_dirty(page);
  if (invalidate_complete_page(mapping, page)) return 0;
  if (was_dirty) set_page_dirty(page);
  return -EIO;
}

int invalidate_inode_pages2_range(struct address_space *mapping, pgoff_t start, pgoff_t end) {
  struct pagevec pvec;
  pagevec_init(&pvec, 0);
  pgoff_t next = start;
  int error = 0;
  while (!error && next <= end && pagevec_lookup(&pvec, mapping, next, PAGEVEC_SIZE)) {
    for (unsigned i = 0; i < pagevec_count(&pvec) && !error; i++) {
      struct page *page = pvec.pages[i];
      lock_page(page);
      next = page->index + 1;
      const bool past = page->index > end;
      if (page->mapping == mapping && !past) error = drop_page(mapping, page);
      unlock_page(page);
      if (past) break;
    }
    pagevec_release(&pvec);
    cond_resched();
    if (next == 0) break;
  }
  return error;
}

int vmtruncate(struct inode *inode, loff_t offset) {
  struct address_space *mapping = inode->i_mapping;
  if (offset > i_size_read(inode)) {
    const unsigned long limit = current->signal->rlim[RLIMIT_FSIZE].rlim_cur;
    if (limit != RLIM_INFINITY && static_cast<unsigned long>(offset) > limit) {
      send_sig(SIGXFSZ, current, 0);
      return -EFBIG;
    }
    if (static_cast<unsigned long>(offset) > inode->i_sb->s_maxbytes) return -EFBIG;
    i_size_write(inode, offset);
  } else {
    if (IS_SWAPFILE(inode)) return -ETXTBSY;
    i_size_write(inode, offset);
    unmap_mapping_range(mapping, offset + PAGE_SIZE - 1, 0, 1);
    truncate_inode_pages(mapping, offset);
  }
  if (inode->i_op && inode->i_op->truncate) inode->i_op->truncate(inode);
  return 0;
}
