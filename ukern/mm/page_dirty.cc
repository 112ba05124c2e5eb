// SPDX-License-Identifier: GPL-2.0
// The dirty and write-back marks of a page. Each is a bit in the page and a tag in its mapping's
// index. They agree except between clear_page_dirty_for_io and writepage's set_page_writeback or
// redirtying: the tag stays, so that a concurrent sync still finds the page.
#include <linux/backing-dev.h>
#include <linux/pagemap.h>
#include <linux/writeback.h>

#include "ukern/mm/mm_internal.h"
#include "ukern/sync/guard.h"

atomic_t nr_file_dirty = ATOMIC_INIT(0);

int __set_page_dirty_nobuffers(struct page *page) {
  if (TestSetPageDirty(page)) return 0;
  struct address_space *mapping = page_mapping(page);
  if (!mapping) return 1;
  {
    WriteGuard guard(mapping->tree_lock);
    if (page_mapping(page)) {  // not truncated since
      BUG_ON(page_mapping(page) != mapping);
      if (mapping_cap_account_dirty(mapping)) atomic_inc(&nr_file_dirty);
      radix_tree_tag_set(&mapping->page_tree, page->index, PAGECACHE_TAG_DIRTY);
    }
  }
  if (mapping->host) __mark_inode_dirty(mapping->host, I_DIRTY_PAGES);
  return 1;
}

int redirty_page_for_writepage(struct writeback_control *wbc, struct page *page) {
  wbc->pages_skipped++;
  return __set_page_dirty_nobuffers(page);
}

int set_page_dirty(struct page *page) {
  struct address_space *mapping = page_mapping(page);
  if (!mapping) return !TestSetPageDirty(page);
  if (mapping->a_ops->set_page_dirty) return mapping->a_ops->set_page_dirty(page);
  return __set_page_dirty_nobuffers(page);
}

int test_clear_page_dirty(struct page *page) {
  struct address_space *mapping = page_mapping(page);
  if (!mapping) return TestClearPageDirty(page);
  WriteGuard guard(mapping->tree_lock);
  const int was_dirty = TestClearPageDirty(page);
  if (was_dirty) {
    radix_tree_tag_clear(&mapping->page_tree, page->index, PAGECACHE_TAG_DIRTY);
    if (mapping_cap_account_dirty(mapping)) atomic_dec(&nr_file_dirty);
  }
  return was_dirty;
}

int clear_page_dirty_for_io(struct page *page) {
  struct address_space *mapping = page_mapping(page);
  if (!TestClearPageDirty(page)) return 0;
  if (mapping && mapping_cap_account_dirty(mapping)) atomic_dec(&nr_file_dirty);
  return 1;
}

int test_clear_page_writeback(struct page *page) {
  struct address_space *mapping = page_mapping(page);
  if (!mapping) return test_and_clear_bit(PG_writeback, &page->flags);
  WriteGuard guard(mapping->tree_lock);
  const int was_set = test_and_clear_bit(PG_writeback, &page->flags);
  if (was_set) radix_tree_tag_clear(&mapping->page_tree, page->index, PAGECACHE_TAG_WRITEBACK);
  return was_set;
}

int test_set_page_writeback(struct page *page) {
  struct address_space *mapping = page_mapping(page);
  if (!mapping) return test_and_set_bit(PG_writeback, &page->flags);
  WriteGuard guard(mapping->tree_lock);
  const int was_set = test_and_set_bit(PG_writeback, &page->flags);
  if (!was_set) radix_tree_tag_set(&mapping->page_tree, page->index, PAGECACHE_TAG_WRITEBACK);
  if (!PageDirty(page)) radix_tree_tag_clear(&mapping->page_tree, page->index, PAGECACHE_TAG_DIRTY);
  return was_set;
}
