// SPDX-License-Identifier: GPL-2.0
// Writing a file's dirty pages and waiting for them.
#include <linux/backing-dev.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/mpage.h>
#include <linux/pagemap.h>
#include <linux/pagevec.h>
#include <linux/sched.h>
#include <linux/writeback.h>

#include "ukern/mm/mm_internal.h"
#include "ukern/sync/guard.h"

namespace {

constexpr loff_t kEnd = 0x7fffffffffffffff;

int write_range(struct address_space *mapping, loff_t start, loff_t end,
                writeback_sync_modes mode) {
  if (!mapping_cap_writeback_dirty(mapping)) return 0;
  struct writeback_control wbc = {};
  wbc.sync_mode = mode;
  wbc.nr_to_write = static_cast<long>(mapping_pages(mapping) * 2);
  wbc.range_start = start;
  wbc.range_end = end;
  return do_writepages(mapping, &wbc);
}

// Locks a tagged page and clears its dirty flag; false, with the page unlocked, if there is nothing
// to write any more.
bool claim_for_writing(struct address_space *mapping, struct page *page, pgoff_t end,
                       const struct writeback_control *wbc) {
  lock_page(page);
  if (page->mapping == mapping && page->index <= end) {
    if (wbc->sync_mode != WB_SYNC_NONE) wait_on_page_writeback(page);
    if (!PageWriteback(page) && clear_page_dirty_for_io(page)) return true;
  }
  unlock_page(page);
  return false;
}

// Writes a page and records an error in the mapping.
int write_claimed(struct address_space *mapping, struct page *page, struct writeback_control *wbc) {
  const int error = mapping->a_ops->writepage(page, wbc);
  if (error) set_bit(error == -ENOSPC ? AS_ENOSPC : AS_EIO, &mapping->flags);
  if (error == AOP_WRITEPAGE_ACTIVATE) unlock_page(page);
  return error;
}

struct pass {
  pgoff_t index;  // where the search continues
  pgoff_t end;
  bool done = false;
  bool found = false;  // any tagged page at all
  int error = 0;
};

void write_tagged(struct address_space *mapping, struct writeback_control *wbc, pass *p) {
  struct pagevec pvec;
  pagevec_init(&pvec, 0);
  while (!p->done && p->index <= p->end) {
    const pgoff_t room = min(p->end - p->index, static_cast<pgoff_t>(PAGEVEC_SIZE) - 1) + 1;
    if (!pagevec_lookup_tag(&pvec, mapping, &p->index, PAGECACHE_TAG_DIRTY,
                            static_cast<unsigned>(room)))
      break;
    p->found = true;
    for (unsigned i = 0; i < pagevec_count(&pvec); i++) {
      struct page *page = pvec.pages[i];
      if (!claim_for_writing(mapping, page, p->end, wbc)) continue;
      p->error = write_claimed(mapping, page, wbc);
      if (p->error || --wbc->nr_to_write <= 0) p->done = true;
      if (wbc->nonblocking && bdi_write_congested(mapping->backing_dev_info)) {
        wbc->encountered_congestion = 1;
        p->done = true;
      }
    }
    if (pvec.pages[pvec.nr - 1]->index > p->end) p->done = true;
    pagevec_release(&pvec);
    cond_resched();
  }
}

}  // namespace

int generic_writepages(struct address_space *mapping, struct writeback_control *wbc) {
  if (wbc->nonblocking && bdi_write_congested(mapping->backing_dev_info)) {
    wbc->encountered_congestion = 1;
    return 0;
  }
  if (!mapping->a_ops->writepage) return 0;

  const bool whole = wbc->range_start == 0 && wbc->range_end == kEnd;
  pass p = {};
  p.index = wbc->range_cyclic ? __atomic_load_n(&mapping->writeback_index, __ATOMIC_RELAXED)
                              : static_cast<pgoff_t>(wbc->range_start >> PAGE_CACHE_SHIFT);
  p.end = wbc->range_cyclic ? ~0ul : static_cast<pgoff_t>(wbc->range_end >> PAGE_CACHE_SHIFT);
  write_tagged(mapping, wbc, &p);
  if (wbc->range_cyclic && !p.found && !p.done) {
    p.index = 0;  // the end was reached: once more from the start
    write_tagged(mapping, wbc, &p);
  }
  if (wbc->range_cyclic || (whole && wbc->nr_to_write > 0))
    __atomic_store_n(&mapping->writeback_index, p.index, __ATOMIC_RELAXED);
  return p.error;
}

int do_writepages(struct address_space *mapping, struct writeback_control *wbc) {
  might_sleep();
  if (wbc->nr_to_write <= 0) return 0;
  wbc->for_writepages = 1;
  const int error = mapping->a_ops->writepages ? mapping->a_ops->writepages(mapping, wbc)
                                               : generic_writepages(mapping, wbc);
  wbc->for_writepages = 0;
  return error;
}

int filemap_fdatawrite(struct address_space *mapping) {
  return write_range(mapping, 0, kEnd, WB_SYNC_ALL);
}

int wait_on_page_writeback_range(struct address_space *mapping, pgoff_t start, pgoff_t end) {
  struct pagevec pvec;
  pagevec_init(&pvec, 0);
  int error = 0;
  pgoff_t index = start;
  if (end < start) return 0;
  while (index <= end) {
    const pgoff_t room = min(end - index, static_cast<pgoff_t>(PAGEVEC_SIZE) - 1) + 1;
    if (!pagevec_lookup_tag(&pvec, mapping, &index, PAGECACHE_TAG_WRITEBACK,
                            static_cast<unsigned>(room)))
      break;
    for (unsigned i = 0; i < pagevec_count(&pvec); i++) {
      struct page *page = pvec.pages[i];
      if (page->index > end) continue;
      wait_on_page_writeback(page);
      if (PageError(page)) error = -EIO;
    }
    pagevec_release(&pvec);
    cond_resched();
  }
  if (test_and_clear_bit(AS_ENOSPC, &mapping->flags)) error = -ENOSPC;
  if (test_and_clear_bit(AS_EIO, &mapping->flags)) error = -EIO;
  return error;
}

int filemap_fdatawait(struct address_space *mapping) {
  const loff_t size = i_size_read(mapping->host);
  if (size == 0) return 0;
  return wait_on_page_writeback_range(mapping, 0,
                                      static_cast<pgoff_t>((size - 1) >> PAGE_CACHE_SHIFT));
}

int filemap_write_and_wait(struct address_space *mapping) {
  if (!mapping_pages(mapping)) return 0;
  int error = filemap_fdatawrite(mapping);
  // After -EIO waiting may be in vain; after other errors, waits for the pages that were written.
  if (error == -EIO) return error;
  const int wait_error = filemap_fdatawait(mapping);
  return error ? error : wait_error;
}

int sync_page_range(struct inode *inode, struct address_space *mapping, loff_t pos, loff_t count) {
  if (!mapping_cap_writeback_dirty(mapping) || !count) return 0;
  const loff_t last = pos + count - 1;
  int error = write_range(mapping, pos, last, WB_SYNC_ALL);
  if (!error) {
    MutexGuard guard(inode->i_mutex);
    error = generic_osync_inode(inode, mapping, OSYNC_METADATA);
  }
  if (error) return error;
  return wait_on_page_writeback_range(mapping, static_cast<pgoff_t>(pos >> PAGE_CACHE_SHIFT),
                                      static_cast<pgoff_t>(last >> PAGE_CACHE_SHIFT));
}

int write_one_page(struct page *page, int wait) {
  struct address_space *mapping = page->mapping;
  struct writeback_control wbc = {};
  wbc.sync_mode = WB_SYNC_ALL;
  wbc.nr_to_write = 1;
  BUG_ON(!PageLocked(page));
  if (wait) wait_on_page_writeback(page);
  if (!clear_page_dirty_for_io(page)) {
    unlock_page(page);
    return 0;
  }
  page_cache_get(page);
  int error = mapping->a_ops->writepage(page, &wbc);
  if (!error && wait) {
    wait_on_page_writeback(page);
    if (PageError(page)) error = -EIO;
  }
  page_cache_release(page);
  return error;
}

long do_fsync(struct file *file, int datasync) {
  if (!file->f_op || !file->f_op->fsync) return -EINVAL;
  struct address_space *mapping = file->f_mapping;
  // Starts writing the pages before taking the lock, and waits for them after dropping it.
  int error = filemap_fdatawrite(mapping);
  int fsync_error;
  {
    MutexGuard guard(mapping->host->i_mutex);
    fsync_error = file->f_op->fsync(file, file->f_dentry, datasync);
  }
  const int wait_error = filemap_fdatawait(mapping);
  if (!error) error = fsync_error;
  return error ? error : wait_error;
}
