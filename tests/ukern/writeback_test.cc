// SPDX-License-Identifier: GPL-2.0
// Dirty pages: how they become dirty, who writes them, what is waited for.
#include "tests/harness/case.h"
#include "tests/ukern/open_file.h"

namespace {

int page_is_dirty(open_file &file, unsigned long index) {
  struct page *page = find_get_page(file.mapping(), index);
  if (!page) return -1;
  const int dirty = PageDirty(page) ? 1 : 0;
  page_cache_release(page);
  return dirty;
}

}  // namespace

CASE(writeback, a_write_leaves_a_dirty_page_and_inode) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  EXPECT_FALSE(mapping_tagged(file.mapping(), PAGECACHE_TAG_DIRTY));
  EXPECT_EQ(file.write("x", 1, 0), 1);
  EXPECT_EQ(page_is_dirty(file, 0), 1);
  EXPECT_TRUE(mapping_tagged(file.mapping(), PAGECACHE_TAG_DIRTY));
  EXPECT_TRUE(file.inode()->i_state & I_DIRTY_PAGES);
}

CASE(writeback, fdatawrite_cleans_the_pages) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  for (int i = 0; i < 40; i++) EXPECT_EQ(file.write("x", 1, (loff_t)i * 8192), 1);
  EXPECT_EQ(filemap_fdatawrite(file.mapping()), 0);
  EXPECT_EQ(filemap_fdatawait(file.mapping()), 0);
  EXPECT_FALSE(mapping_tagged(file.mapping(), PAGECACHE_TAG_DIRTY));
  EXPECT_FALSE(mapping_tagged(file.mapping(), PAGECACHE_TAG_WRITEBACK));
  for (int i = 0; i < 40; i++) EXPECT_EQ(page_is_dirty(file, (unsigned long)i * 2), 0);
}

CASE(writeback, sync_page_range_writes_the_range_only) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  for (int i = 0; i < 4; i++) EXPECT_EQ(file.write("x", 1, (loff_t)i * 4096), 1);
  EXPECT_EQ(write_inode_now(file.inode(), 1), 0);  // a dirty inode would take all its pages along
  for (int i = 0; i < 4; i++) EXPECT_EQ(file.write("y", 1, (loff_t)i * 4096), 1);
  EXPECT_EQ(file.inode()->i_state & I_DIRTY_DATASYNC, 0ul);
  EXPECT_EQ(sync_page_range(file.inode(), file.mapping(), 4096, 4097), 0);
  EXPECT_EQ(page_is_dirty(file, 0), 1);
  EXPECT_EQ(page_is_dirty(file, 1), 0);
  EXPECT_EQ(page_is_dirty(file, 2), 0);
  EXPECT_EQ(page_is_dirty(file, 3), 1);
}

CASE(writeback, fsync_writes_pages_and_inode) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.write("x", 1, 0), 1);
  EXPECT_EQ(do_fsync(file.get(), 0), 0);
  EXPECT_EQ(page_is_dirty(file, 0), 0);
  EXPECT_EQ(file.inode()->i_state & I_DIRTY, 0ul);
}

CASE(writeback, a_synchronous_write_is_written_when_it_returns) {
  open_file file("/f", O_RDWR | O_CREAT | O_SYNC);
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.write("x", 1, 0), 1);
  EXPECT_EQ(page_is_dirty(file, 0), 0);
}

CASE(writeback, redirtying_counts_the_page_as_skipped) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.write("x", 1, 0), 1);
  struct page *page = find_lock_page(file.mapping(), 0);
  REQUIRE_TRUE(page);
  struct writeback_control wbc = {};
  EXPECT_TRUE(clear_page_dirty_for_io(page));
  EXPECT_FALSE(clear_page_dirty_for_io(page));
  // The tag stays until write-back is announced: a sync meanwhile still finds the page.
  EXPECT_TRUE(mapping_tagged(file.mapping(), PAGECACHE_TAG_DIRTY));
  EXPECT_TRUE(redirty_page_for_writepage(&wbc, page));
  EXPECT_EQ(wbc.pages_skipped, 1l);
  EXPECT_TRUE(PageDirty(page));
  EXPECT_EQ(set_page_dirty(page), 0);
  unlock_page(page);
  page_cache_release(page);
}

CASE(writeback, write_one_page_unlocks_what_it_wrote) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.write("x", 1, 0), 1);
  struct page *page = find_lock_page(file.mapping(), 0);
  REQUIRE_TRUE(page);
  EXPECT_EQ(write_one_page(page, 1), 0);
  EXPECT_FALSE(PageLocked(page));
  EXPECT_FALSE(PageDirty(page));
  page_cache_release(page);
}

CASE(writeback, an_error_is_told_once) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  set_bit(AS_ENOSPC, &file.mapping()->flags);
  EXPECT_EQ(file.write("x", 1, 0), 1);
  EXPECT_EQ(filemap_fdatawait(file.mapping()), -ENOSPC);
  EXPECT_EQ(filemap_fdatawait(file.mapping()), 0);
}

CASE(writeback, the_data_of_a_forgotten_inode_is_kept) {
  {
    open_file file("/f");
    REQUIRE_EQ(file.error(), 0);
    EXPECT_EQ(file.write("kept", 4, 0), 4);
  }
  struct nameidata nd;
  REQUIRE_EQ(path_lookup("/", 0, &nd), 0);
  shrink_dcache_sb(nd.mnt->mnt_sb);
  path_release(&nd);
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  char seen[5] = {};
  EXPECT_EQ(file.read(seen, 4, 0), 4);
  EXPECT_STREQ(seen, "kept");
}

CASE(writeback, sync_inodes_writes_all) {
  open_file one("/one"), two("/two");
  REQUIRE_EQ(one.error() | two.error(), 0);
  EXPECT_EQ(one.write("x", 1, 0), 1);
  EXPECT_EQ(two.write("x", 1, 0), 1);
  sync_inodes(1);
  EXPECT_EQ(page_is_dirty(one, 0), 0);
  EXPECT_EQ(page_is_dirty(two, 0), 0);
}
