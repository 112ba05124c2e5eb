// SPDX-License-Identifier: GPL-2.0
// Mapped files: faults, dirtying, msync, truncation, private copies, and reclaim around them.
#include "ukern/mm/mm_internal.h"
#include "tests/harness/case.h"
#include "tests/ukern/open_file.h"
#include "ukern/fs/memfs.h"
#include "ukern/testing/uk_mm.h"

namespace {

enum { kShared = 1, kPrivate = 2, kRead = 1, kWrite = 2, kAsync = 1, kSync = 4 };

class mapped {
 public:
  mapped(open_file &file, unsigned long len, int prot, int flags) {
    error_ = uk_mmap((struct uk_file *)file.get(), 0, len, prot, flags, &map_);
  }
  ~mapped() { unmap(); }
  mapped(const mapped &) = delete;
  mapped &operator=(const mapped &) = delete;

  void unmap() {
    if (map_) uk_munmap(map_);
    map_ = NULL;
  }
  int error() const { return error_; }
  struct uk_mapping *get() {
    return map_;
  }
  int load(unsigned long pos) {
    char byte = 0;
    const int error = uk_map_read(map_, pos, &byte, 1);
    return error ? error : (unsigned char)byte;
  }
  int store(unsigned long pos, char byte) { return uk_map_write(map_, pos, &byte, 1); }

 private:
  struct uk_mapping *map_ = NULL;
  int error_;
};

int byte_at(open_file &file, loff_t pos) {
  char byte = 0;
  const long n = file.read(&byte, 1, pos);
  return n == 1 ? (unsigned char)byte : (int)n;
}

struct super_block *root_sb() {
  return current->fs->rootmnt->mnt_sb;
}

}  // namespace

CASE(mapping, shows_the_file_and_what_is_written_to_it) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.write("abc", 3, 0), 3);
  mapped map(file, 4096, kRead, kShared);
  REQUIRE_EQ(map.error(), 0);
  EXPECT_EQ(map.load(1), 'b');
  EXPECT_EQ(file.write("X", 1, 1), 1);
  EXPECT_EQ(map.load(1), 'X');
  EXPECT_EQ(map.load(100), 0);
  EXPECT_EQ(map.store(0, 'q'), -EFAULT);
}

CASE(mapping, a_store_reaches_the_file_at_msync) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.write("abc", 3, 0), 3);
  EXPECT_EQ(do_fsync(file.get(), 0), 0);
  mapped map(file, 4096, kRead | kWrite, kShared);
  REQUIRE_EQ(map.error(), 0);
  EXPECT_EQ(map.store(2, 'Z'), 0);
  EXPECT_EQ(byte_at(file, 2), 'Z');
  // Until the region is synced or goes, only its own table knows that the page is dirty.
  EXPECT_FALSE(mapping_tagged(file.mapping(), PAGECACHE_TAG_DIRTY));
  EXPECT_EQ(uk_msync(map.get(), 0, 4096, kAsync), 0);
  EXPECT_TRUE(mapping_tagged(file.mapping(), PAGECACHE_TAG_DIRTY));
  const unsigned long written = memfs_calls(root_sb(), MEMFS_OP_WRITEPAGE);
  EXPECT_EQ(uk_msync(map.get(), 0, 4096, kSync), 0);
  EXPECT_FALSE(mapping_tagged(file.mapping(), PAGECACHE_TAG_DIRTY));
  EXPECT_EQ(memfs_calls(root_sb(), MEMFS_OP_WRITEPAGE), written + 1);
}

CASE(mapping, unmapping_leaves_the_page_dirty) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.truncate(5000), 0);
  mapped map(file, 8192, kRead | kWrite, kShared);
  REQUIRE_EQ(map.error(), 0);
  EXPECT_EQ(map.store(4500, 'm'), 0);
  map.unmap();
  EXPECT_TRUE(mapping_tagged(file.mapping(), PAGECACHE_TAG_DIRTY));
  EXPECT_EQ(filemap_write_and_wait(file.mapping()), 0);
  EXPECT_EQ(invalidate_inode_pages(file.mapping()), 1ul);
  EXPECT_EQ(byte_at(file, 4500), 'm');
}

CASE(mapping, behind_the_end_of_the_file_is_sigbus) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.truncate(4096 + 1), 0);
  mapped map(file, 4 * 4096, kRead | kWrite, kShared);
  REQUIRE_EQ(map.error(), 0);
  EXPECT_EQ(map.load(8191), 0);
  EXPECT_EQ(map.load(8192), -EIO);
  EXPECT_EQ(map.store(8192, 'x'), -EIO);
  EXPECT_EQ(map.load(4 * 4096), -EFAULT);
  EXPECT_EQ(file.truncate(10), 0);
  EXPECT_EQ(map.load(4096), -EIO);
  EXPECT_EQ(map.load(0), 0);
}

CASE(mapping, a_private_store_stays_private) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.write("abc", 3, 0), 3);
  mapped map(file, 4096, kRead | kWrite, kPrivate);
  REQUIRE_EQ(map.error(), 0);
  EXPECT_EQ(map.load(0), 'a');
  EXPECT_EQ(map.store(0, 'P'), 0);
  EXPECT_EQ(map.load(0), 'P');
  EXPECT_EQ(map.load(1), 'b');
  EXPECT_EQ(byte_at(file, 0), 'a');
}

CASE(mapping, needs_a_file_open_for_it) {
  { open_file make("/f"); }
  open_file file("/f", O_RDONLY);
  REQUIRE_EQ(file.error(), 0);
  mapped map(file, 4096, kRead | kWrite, kShared);
  EXPECT_EQ(map.error(), -EACCES);
  mapped copy(file, 4096, kRead | kWrite, kPrivate);
  EXPECT_EQ(copy.error(), 0);
  mapped none(file, 0, kRead, kShared);
  EXPECT_EQ(none.error(), -EINVAL);
}

CASE(mapping, a_page_that_cannot_be_read_is_sigbus) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.truncate(4096), 0);
  mapped map(file, 4096, kRead, kShared);
  REQUIRE_EQ(map.error(), 0);
  memfs_fail(root_sb(), MEMFS_OP_READPAGE, -EIO, 1);
  EXPECT_EQ(map.load(0), -EIO);
  EXPECT_EQ(map.load(0), 0);
}

CASE(mapping, reclaim_takes_clean_pages_that_nobody_maps) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  for (int i = 0; i < 4; i++) EXPECT_EQ(file.write("x", 1, (loff_t)i * 4096), 1);
  uk_drop_pagecache();
  EXPECT_EQ(file.mapping()->nrpages, 4ul);
  EXPECT_EQ(do_fsync(file.get(), 0), 0);
  mapped map(file, 4096, kRead, kShared);
  REQUIRE_EQ(map.error(), 0);
  EXPECT_EQ(map.load(0), 'x');
  uk_drop_pagecache();
  EXPECT_EQ(file.mapping()->nrpages, 1ul);
  EXPECT_EQ(byte_at(file, 8192), 'x');
}

// Reads four times as many pages as the limit allows.
static void stays_below(unsigned long *limit) {
  const unsigned long old = *limit;
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.truncate(400 * 4096), 0);
  *limit = 100;
  for (int i = 0; i < 400; i++) EXPECT_EQ(byte_at(file, (loff_t)i * 4096), 0);
  EXPECT_LE(file.mapping()->nrpages, 100ul);
  *limit = old;
}

CASE(mapping, the_cache_stays_below_the_memory) {
  stays_below(&totalram_pages);
}

CASE(mapping, the_cache_stays_below_its_own_limit) {
  stays_below(&page_cache_limit);
}

CASE(mapping, the_write_back_threads_write_what_is_dirty) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.write("x", 1, 0), 1);
  for (int i = 0; i < 500 && mapping_tagged(file.mapping(), PAGECACHE_TAG_DIRTY); i++) {
    uk_wake_writeback();
    msleep(10);
  }
  EXPECT_FALSE(mapping_tagged(file.mapping(), PAGECACHE_TAG_DIRTY));
}
