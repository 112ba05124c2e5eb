// SPDX-License-Identifier: GPL-2.0
// The layer's page cache over the shared lower file.
#include "tests/module/kit/mount.h"
#include "ukern/fs/memfs.h"
#include "ukern/testing/uk_mm.h"

namespace {

// The upper inode of a file that is held open, for calls of its page operations.
class open_pages {
 public:
  explicit open_pages(const char *path) : file_(path, O_CREAT | O_RDWR), walk_(path) {}
  struct inode *inode() const {
    return walk_.inode();
  }
  struct address_space *mapping() const {
    return inode()->i_mapping;
  }
  test_file &file() { return file_; }

 private:
  test_file file_;
  test_walk walk_;
};

// A page of a mapping, locked as the kernel locks it for the page operations, until the end of the
// scope.
class locked_page {
 public:
  locked_page(struct address_space *mapping, unsigned long index)
      : page_(grab_cache_page(mapping, index)) {}
  ~locked_page() {
    if (PageLocked(page_)) unlock_page(page_);
    page_cache_release(page_);
  }
  locked_page(const locked_page &) = delete;
  locked_page &operator=(const locked_page &) = delete;
  struct page *get() const {
    return page_;
  }
  char *text() const { return static_cast<char *>(page_address(page_)); }

 private:
  struct page *page_;
};

constexpr int errors_of_a_write[] = {0, -EIO};

}  // namespace

MODULE_CASE(mmap, table_has_exactly_its_slots) {
  EXPECT_NE(tarn_aops.writepage, nullptr);
  EXPECT_NE(tarn_aops.readpage, nullptr);
  EXPECT_NE(tarn_aops.prepare_write, nullptr);
  EXPECT_NE(tarn_aops.commit_write, nullptr);
  EXPECT_NE(tarn_aops.bmap, nullptr);
  EXPECT_NE(tarn_aops.direct_IO, nullptr);
  EXPECT_EQ(test_filled_slots(tarn_aops), 6);
}

MODULE_CASE(mmap, partial_last_page_is_up_to_date_and_only_its_bytes_are_read) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "partial"), 7);
  open_pages pages("/mnt/f");
  locked_page page(pages.mapping(), 0);
  memset(page.text(), '#', PAGE_SIZE);
  ClearPageUptodate(page.get());
  EXPECT_EQ(tarn_aops.readpage(nullptr, page.get()), 0);
  EXPECT_TRUE(PageUptodate(page.get()));
  EXPECT_FALSE(PageLocked(page.get()));
  EXPECT_EQ(memcmp(page.text(), "partial\0", 8), 0);  // nor does anybody see what was there before
}

MODULE_CASE(mmap, write_far_into_an_empty_file_grows_it_by_steps) {
  test_mount mount;
  open_pages pages("/mnt/f");
  {
    locked_page page(pages.mapping(), 2);
    memset(page.text(), '#', PAGE_SIZE);  // what the page held before is not the file's
    ClearPageUptodate(page.get());
    mutex_lock(&pages.inode()->i_mutex);
    EXPECT_EQ(tarn_aops.prepare_write(nullptr, page.get(), 1808, 1812), 0);
    EXPECT_EQ(i_size_read(pages.inode()), 8192);
    EXPECT_EQ(page.text()[0], 0);
    EXPECT_EQ(page.text()[4095], 0);
    memcpy(page.text() + 1808, "far!", 4);
    EXPECT_EQ(tarn_aops.commit_write(nullptr, page.get(), 1808, 1812), 0);
    mutex_unlock(&pages.inode()->i_mutex);
    EXPECT_FALSE(PageDirty(page.get()));
  }
  EXPECT_EQ(i_size_read(pages.inode()), 10004);
  struct uk_stat stat = {};
  EXPECT_EQ(test_stat("/lower/f", &stat), 0);
  EXPECT_EQ(stat.size, 10004ull);
  test_file lower("/lower/f", O_RDONLY);
  char text[8] = {};
  EXPECT_EQ(lower.read(text, 7, 9999), 5);
  EXPECT_EQ(memcmp(text, "\0far!", 5), 0);
}

MODULE_CASE(mmap, buffered_write_is_in_the_lower_file_at_once) {
  test_mount mount;
  test_file file("/mnt/f", O_CREAT | O_RDWR);
  EXPECT_EQ(file.write("at once", 7, 0), 7);
  EXPECT_TRUE(test_holds("/lower/f", "at once"));
}

MODULE_CASE(mmap, written_page_goes_below_whole_and_extends_the_file_to_a_page) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "small"), 5);
  open_pages pages("/mnt/f");
  struct writeback_control wbc;
  memset(&wbc, 0, sizeof(wbc));
  {
    locked_page page(pages.mapping(), 0);
    memset(page.text(), 0, PAGE_SIZE);
    memcpy(page.text(), "whole", 5);
    EXPECT_EQ(tarn_aops.writepage(page.get(), &wbc), 0);
    EXPECT_TRUE(PageUptodate(page.get()));
    EXPECT_FALSE(PageLocked(page.get()));
  }
  struct uk_stat stat = {};
  EXPECT_EQ(test_stat("/lower/f", &stat), 0);
  EXPECT_EQ(stat.size, 4096ull);
  EXPECT_TRUE(test_holds("/lower/f", "whole"));
}

MODULE_CASE(mmap, page_of_a_plain_lower_file_system_is_written_but_not_captured) {
  test_mount mount;
  test_daemon daemon;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  REQUIRE_EQ(install_rule('r', "/lower"), 0);
  open_pages pages("/mnt/f");
  struct writeback_control wbc;
  memset(&wbc, 0, sizeof(wbc));
  {
    locked_page page(pages.mapping(), 0);
    memset(page.text(), 'm', PAGE_SIZE);
    EXPECT_EQ(tarn_aops.writepage(page.get(), &wbc), 0);
  }
  EXPECT_TRUE(daemon.idle());
  do_flush(0);
}

// The record of this layer on a lower dentry, as where the lower file system is a mount of the
// layer itself; it leads to the dentry's own place.
class layered_lower_dentry {
 public:
  layered_lower_dentry(const test_walk &lower)
      : dentry_(lower.dentry()), data_(dentry_->d_fsdata), ops_(dentry_->d_op) {
    info_.lower_path.dentry = dentry_;
    info_.lower_path.mnt = lower.mnt();
    dentry_->d_fsdata = &info_;
    dentry_->d_op = &tarn_dops;
  }
  ~layered_lower_dentry() {
    dentry_->d_fsdata = data_;
    dentry_->d_op = ops_;
  }
  layered_lower_dentry(const layered_lower_dentry &) = delete;
  layered_lower_dentry &operator=(const layered_lower_dentry &) = delete;

 private:
  struct dentry *dentry_;
  void *data_;
  struct dentry_operations *ops_;
  struct tarn_dentry_info info_;
};

// A write-back thread runs with the kernel's address limit, so that capture can read the page.
MODULE_CASE(mmap, page_over_a_mount_of_the_layer_is_captured_whole) {
  test_mount mount;
  test_daemon daemon;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  REQUIRE_EQ(install_rule('r', "/lower"), 0);
  {
    open_pages pages("/mnt/f");
    const test_walk lower("/lower/f");
    layered_lower_dentry layered(lower);
    struct writeback_control wbc;
    memset(&wbc, 0, sizeof(wbc));
    locked_page page(pages.mapping(), 1);
    memset(page.text(), 'm', PAGE_SIZE);
    kernel_ds_guard as_write_back_runs;
    EXPECT_EQ(tarn_aops.writepage(page.get(), &wbc), 0);
  }
  const test_message &first = daemon.next();
  EXPECT_EQ(first.type(), OX_OP_WRITE);
  EXPECT_EQ(first.wr()->type, OX_WRITE_PAGED);
  EXPECT_EQ(first.wr()->pages, 2u);
  EXPECT_EQ(first.wr()->off, 4096ull);
  EXPECT_STREQ(first.wr()->data, "/lower/f");
  EXPECT_EQ(daemon.drain(), 1);
  do_flush(0);
}

MODULE_CASE(mmap, page_written_by_a_process_of_its_own_stops_the_rule_and_reaches_the_file) {
  test_mount mount;
  test_daemon daemon;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  REQUIRE_EQ(install_rule('r', "/lower"), 0);
  {
    open_pages pages("/mnt/f");
    const test_walk lower("/lower/f");
    layered_lower_dentry layered(lower);
    struct writeback_control wbc;
    memset(&wbc, 0, sizeof(wbc));
    locked_page page(pages.mapping(), 0);
    memset(page.text(), 'm', PAGE_SIZE);
    EXPECT_EQ(tarn_aops.writepage(page.get(), &wbc), 0);
  }
  EXPECT_TRUE(case_logged("tarn_write_sync: tarn_wrtrans_alloc fail"));
  EXPECT_EQ(daemon.next().type(), OX_OP_STOP_RULE);
  struct uk_stat stat = {};
  EXPECT_EQ(test_stat("/lower/f", &stat), 0);
  EXPECT_EQ(stat.size, 4096ull);
  do_flush(0);
}

MODULE_CASE(mmap, locked_page_is_the_lower_file_s_own) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "below"), 5);
  struct file *file = filp_open("/mnt/f", O_RDONLY, 0);
  REQUIRE_TRUE(!(IS_ERR(file)));
  struct page *page = tarn_get_locked_page(file, 0);
  EXPECT_FALSE(IS_ERR(page));
  if (!IS_ERR(page)) {
    EXPECT_TRUE(PageLocked(page));
    EXPECT_EQ(page->mapping, tarn_lower_inode(file->f_dentry->d_inode)->i_mapping);
    EXPECT_EQ(memcmp(page_address(page), "below", 5), 0);
    unlock_page(page);
    page_cache_release(page);
  }
  filp_close(file, nullptr);
}

MODULE_CASE(mmap, block_map_of_a_file_system_without_one_is_0) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  const test_walk upper("/mnt/f");
  struct address_space *lower = tarn_lower_inode(upper.inode())->i_mapping;
  const struct address_space_operations *own = lower->a_ops;
  struct address_space_operations without = *own;
  without.bmap = nullptr;
  lower->a_ops = &without;
  EXPECT_EQ(tarn_aops.bmap(upper.inode()->i_mapping, 7), 0ul);
  lower->a_ops = own;
}

MODULE_CASE(mmap, block_number_passes_through_an_int) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  const test_walk upper("/mnt/f");
  struct address_space *lower = tarn_lower_inode(upper.inode())->i_mapping;
  const struct address_space_operations *own = lower->a_ops;
  struct address_space_operations with_bmap = *own;
  with_bmap.bmap = [](struct address_space *, sector_t block) -> sector_t {
    return block + 0x1fffffff0ul;
  };
  lower->a_ops = &with_bmap;
  EXPECT_EQ(tarn_aops.bmap(upper.inode()->i_mapping, 0), static_cast<sector_t>(-16));
  lower->a_ops = own;
}

MODULE_CASE(mmap, failed_lower_read_leaves_the_page_not_up_to_date) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  open_pages pages("/mnt/f");
  const test_walk lower("/lower");
  uk_sync();
  uk_drop_pagecache();
  memfs_fail(lower.dentry()->d_sb, MEMFS_OP_READPAGE, -EIO, -1);
  {
    locked_page page(pages.mapping(), 0);
    SetPageUptodate(page.get());
    EXPECT_EQ(tarn_aops.readpage(nullptr, page.get()), -EINVAL);
    EXPECT_FALSE(PageUptodate(page.get()));
    EXPECT_FALSE(PageLocked(page.get()));
  }
  {
    locked_page page(pages.mapping(), 0);
    EXPECT_EQ(tarn_aops.prepare_write(nullptr, page.get(), 0, 1), -EINVAL);
    EXPECT_FALSE(PageUptodate(page.get()));
  }
  memfs_fail(lower.dentry()->d_sb, MEMFS_OP_READPAGE, 0, 0);
  EXPECT_TRUE(test_holds("/mnt/f", "x"));
}

// The upper inode counts as dirty after every write below, also one that failed.
MODULE_CASE(mmap, lower_write_makes_the_inode_dirty) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  open_pages pages("/mnt/f");
  const test_walk lower("/lower");
  char text[4] = "abc";
  for (const int error : errors_of_a_write) {
    EXPECT_EQ(write_inode_now(pages.inode(), 1), 0); /* a sync wakes the write-back thread */
    EXPECT_EQ(pages.inode()->i_state & I_DIRTY, 0ul);
    memfs_fail(lower.dentry()->d_sb, MEMFS_OP_PREPARE_WRITE, error, error ? 1 : 0);
    EXPECT_EQ(tarn_write_lower(pages.inode(), text, 0, 3), error ? -EINVAL : 0);
    EXPECT_EQ(pages.inode()->i_state & I_DIRTY, static_cast<unsigned long>(I_DIRTY_SYNC));
  }
}

MODULE_CASE(mmap, failed_write_back_keeps_the_page_dirty_and_reports_no_error) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  open_pages pages("/mnt/f");
  const test_walk lower("/lower");
  memfs_fail(lower.dentry()->d_sb, MEMFS_OP_PREPARE_WRITE, -EIO, 1);
  struct writeback_control wbc;
  memset(&wbc, 0, sizeof(wbc));
  locked_page page(pages.mapping(), 0);
  SetPageUptodate(page.get());
  EXPECT_EQ(tarn_aops.writepage(page.get(), &wbc), 0);
  EXPECT_FALSE(PageUptodate(page.get()));
  EXPECT_TRUE(PageDirty(page.get()));
  EXPECT_FALSE(PageLocked(page.get()));
  EXPECT_EQ(wbc.pages_skipped, 1);
  SetPageUptodate(page.get());
}

MODULE_CASE(mmap, failed_commit_still_grows_the_upper_size) {
  test_mount mount;
  open_pages pages("/mnt/f");
  const test_walk lower("/lower");
  locked_page page(pages.mapping(), 0);
  mutex_lock(&pages.inode()->i_mutex);
  EXPECT_EQ(tarn_aops.prepare_write(nullptr, page.get(), 0, 10), 0);
  memfs_fail(lower.dentry()->d_sb, MEMFS_OP_PREPARE_WRITE, -EIO, 1);
  EXPECT_EQ(tarn_aops.commit_write(nullptr, page.get(), 0, 10), -EINVAL);
  mutex_unlock(&pages.inode()->i_mutex);
  EXPECT_EQ(i_size_read(pages.inode()), 10);
}

MODULE_CASE(mmap, direct_io_needs_it_below) {
  test_mount mount("nodirect");
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  struct file *file = filp_open("/mnt/f", O_RDWR, 0);
  REQUIRE_TRUE(!IS_ERR(file));
  char text[4];
  struct iovec iov = {.iov_base = text, .iov_len = 4};
  struct kiocb iocb;
  init_sync_kiocb(&iocb, file);
  EXPECT_EQ(tarn_aops.direct_IO(READ, &iocb, &iov, 0, 1), -EINVAL);
  EXPECT_TRUE(case_logged("tarn_direct_IO: lower_file not support O_DIRECT yet"));
  EXPECT_EQ(iocb.ki_filp, file);
  filp_close(file, nullptr);
}

MODULE_CASE(mmap, direct_io_below_gets_the_lower_file_and_its_result_passes_through_an_int) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  struct file *file = filp_open("/mnt/f", O_RDWR, 0);
  REQUIRE_TRUE(!IS_ERR(file));
  static struct file *seen;
  struct address_space *lower = tarn_lower_inode(file->f_dentry->d_inode)->i_mapping;
  const struct address_space_operations *own = lower->a_ops;
  struct address_space_operations watched = *own;
  watched.direct_IO = [](int, struct kiocb *iocb, const struct iovec *, loff_t,
                         unsigned long) -> ssize_t {
    seen = iocb->ki_filp;
    return 0x180000000l;
  };
  lower->a_ops = &watched;
  struct kiocb iocb;
  init_sync_kiocb(&iocb, file);
  EXPECT_EQ(tarn_aops.direct_IO(READ, &iocb, nullptr, 0, 0), static_cast<long>(-2147483648l));
  lower->a_ops = own;
  EXPECT_EQ(seen, tarn_lower_file(file));
  EXPECT_EQ(iocb.ki_filp, file);
  filp_close(file, nullptr);
}

MODULE_CASE(mmap, page_operations_without_a_lower_file_are_a_bug) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "x"), 1);
  static struct inode *inode;
  const test_walk upper("/mnt/f");
  inode = upper.inode();
  EXPECT_REPORT(
      [] {
        char text[4];
        tarn_read_lower(text, 0, sizeof(text), inode);
      },
      "BUG");
  EXPECT_REPORT(
      [] {
        char text[4] = {};
        tarn_write_lower(inode, text, 0, sizeof(text));
      },
      "BUG");
  EXPECT_REPORT(
      [] {
        struct writeback_control wbc;
        memset(&wbc, 0, sizeof(wbc));
        locked_page page(inode->i_mapping, 0);
        tarn_aops.writepage(page.get(), &wbc);
      },
      "BUG");
}

// The rest of a page behind the end of the file was never anybody else's memory.
MODULE_CASE(mmap, gap_within_a_page_reads_as_zeros) {
  test_mount mount;
  {
    test_buffer used(65536, '#');  // what new pages may be made of
  }
  test_buffer first(50, 'x');
  REQUIRE_EQ(test_put("/lower/f", ""), 0);
  test_file file("/mnt/f", O_RDWR);
  EXPECT_EQ(file.write(first.get(), 50, 0), 50);
  EXPECT_EQ(file.write("y", 1, 100), 1);
  char above[101];
  char below[101];
  test_file lower("/lower/f", O_RDONLY);
  EXPECT_EQ(file.read(above, 101, 0), 101);
  EXPECT_EQ(lower.read(below, 101, 0), 101);
  EXPECT_EQ(memcmp(above, below, 101), 0);
  EXPECT_EQ(above[50], 0);
  EXPECT_EQ(above[99], 0);
}

MODULE_CASE(mmap, short_lower_write_counts_as_a_whole_one) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "text"), 4);
  open_pages pages("/mnt/f");
  struct file *lower = tarn_inode(pages.inode())->lower_file;
  const struct file_operations *own = lower->f_op;
  struct file_operations shortened = *own;
  shortened.write = [](struct file *, const char __user *, size_t, loff_t *) -> ssize_t {
    return 0;
  };
  lower->f_op = &shortened;
  char text[4] = "new";
  EXPECT_EQ(tarn_write_lower(pages.inode(), text, 0, 3), 0);
  lower->f_op = own;
}

MODULE_CASE(mmap, part_of_a_page_is_read_to_the_start_of_the_page) {
  test_mount mount;
  REQUIRE_EQ(test_put("/lower/f", "abcdefgh"), 8);
  open_pages pages("/mnt/f");
  locked_page page(pages.mapping(), 0);
  memset(page.text(), '#', PAGE_SIZE);
  EXPECT_EQ(tarn_read_lower_page_segment(page.get(), 0, 2, 3, pages.inode()), 0);
  EXPECT_EQ(memcmp(page.text(), "cde###", 6), 0);
}

// A page behind the end is cleared only where the write does not begin with it, and where the file
// may not grow to it the write ends there.
MODULE_CASE(mmap, page_at_the_end_is_prepared_for_a_part_of_it) {
  test_mount mount;
  open_pages pages("/mnt/f");
  mutex_guard guard(pages.inode()->i_mutex);
  {
    locked_page page(pages.mapping(), 0);
    memset(page.text(), '#', PAGE_SIZE);
    SetPageUptodate(page.get());
    EXPECT_EQ(tarn_aops.prepare_write(nullptr, page.get(), 0, 10), 0);
    EXPECT_EQ(page.text()[100], '#');
    EXPECT_EQ(tarn_aops.prepare_write(nullptr, page.get(), 1, 10), 0);
    EXPECT_EQ(page.text()[100], 0);
  }
  pages.inode()->i_sb->s_maxbytes = 4096;
  locked_page page(pages.mapping(), 2);
  EXPECT_EQ(tarn_aops.prepare_write(nullptr, page.get(), 0, 10), -EFBIG);
  EXPECT_EQ(i_size_read(pages.inode()), 0);
}

// A program may write anywhere that an offset can say; the end of that page is no offset.
MODULE_CASE(mmap, a_write_to_the_last_page_that_a_file_may_have_ends_nothing) {
  constexpr unsigned long long kLast = 0x7ffffffffffff000;
  test_mount mount;
  test_file file("/mnt/f", O_CREAT | O_RDWR);
  const long written = file.write("x", 1, kLast);
  char byte = 0;
  EXPECT_EQ(file.read(&byte, 1, kLast), written == 1 ? 1 : 0);
}
