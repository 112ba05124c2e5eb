// SPDX-License-Identifier: GPL-2.0
// The page cache: its index, the life of a page, reading and writing through it.
#include "tests/harness/case.h"
#include "tests/ukern/open_file.h"

namespace {

// Memory of one case, given back at its end.
struct buffer {
  explicit buffer(size_t size) : data((char *)kmalloc(size, GFP_KERNEL)) {}
  ~buffer() { kfree(data); }
  char *data;
};

int filler_calls;
int filler_result;

int fill_with_index(void *data, struct page *page) {
  (void)data;
  filler_calls++;
  if (filler_result == 0) {
    memset(page_address(page), (int)('a' + page->index), PAGE_SIZE);
    SetPageUptodate(page);
  }
  unlock_page(page);
  return filler_result;
}

}  // namespace

CASE(page_alloc, a_page_has_memory_and_one_user) {
  struct page *page = alloc_page(GFP_KERNEL | __GFP_ZERO);
  REQUIRE_TRUE(page);
  EXPECT_EQ(page_count(page), 1);
  EXPECT_EQ((unsigned long)page_address(page) & ~PAGE_MASK, 0ul);
  for (unsigned i = 0; i < PAGE_SIZE; i += 511) EXPECT_EQ(((char *)page_address(page))[i], 0);
  get_page(page);
  put_page(page);
  EXPECT_EQ(page_count(page), 1);
  __free_page(page);
}

CASE(page_alloc, pages_by_address) {
  const unsigned long one = get_zeroed_page(GFP_KERNEL);
  const unsigned long four = __get_free_pages(GFP_KERNEL, 2);
  REQUIRE_TRUE(one && four);
  memset((void *)four, 'x', 4 * PAGE_SIZE);
  EXPECT_EQ(page_address(virt_to_page((void *)one)), (void *)one);
  EXPECT_EQ(page_address(virt_to_page((void *)(four + 17))), (void *)four);
  free_pages(four, 2);
  free_page(one);
  free_pages(0, 0);
}

CASE(page_cache, reads_back_what_was_written_across_pages) {
  const size_t size = 3 * PAGE_SIZE + 123;
  buffer written(size), seen(size + 100);
  fill_pattern(written.data, size, 1);
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.write(written.data, size, 0), (long)size);
  EXPECT_EQ(i_size_read(file.inode()), (loff_t)size);
  EXPECT_EQ(file.mapping()->nrpages, 4ul);
  EXPECT_EQ(file.read(seen.data, size + 100, 0), (long)size);
  EXPECT_EQ(memcmp(written.data, seen.data, size), 0);
  EXPECT_EQ(file.read(seen.data, 50, (loff_t)size - 20), 20);
  EXPECT_EQ(file.read(seen.data, 50, (loff_t)size), 0);
  EXPECT_EQ(file.read(seen.data, 50, (loff_t)size + 5000), 0);
}

CASE(page_cache, overwrites_inside_a_page) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  char seen[12] = {};
  EXPECT_EQ(file.write("abcdefghij", 10, 0), 10);
  EXPECT_EQ(file.write("XY", 2, 4), 2);
  EXPECT_EQ(file.read(seen, 10, 0), 10);
  EXPECT_STREQ(seen, "abcdXYghij");
  EXPECT_EQ(i_size_read(file.inode()), 10);
}

CASE(page_cache, a_hole_reads_as_zeros) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  char seen[3] = {1, 1, 1};
  EXPECT_EQ(file.write("end", 3, 10000), 3);
  EXPECT_EQ(file.read(seen, 3, 5000), 3);
  EXPECT_EQ(seen[0] | seen[1] | seen[2], 0);
  EXPECT_EQ(file.read(seen, 3, 10000), 3);
  EXPECT_EQ(memcmp(seen, "end", 3), 0);
}

CASE(page_cache, a_cached_page_is_used_by_the_cache) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.write("x", 1, 0), 1);
  struct page *page = find_get_page(file.mapping(), 0);
  REQUIRE_TRUE(page);
  EXPECT_GE(page_count(page), 2);  // a list of pages on their way to the LRU may have one as well
  EXPECT_TRUE(PageUptodate(page));
  EXPECT_FALSE(PageLocked(page));
  EXPECT_EQ(page->index, 0ul);
  EXPECT_EQ(page->mapping, file.mapping());
  page_cache_release(page);
  EXPECT_EQ(find_get_page(file.mapping(), 1), (struct page *)NULL);
}

CASE(page_cache, grab_makes_a_locked_page_that_truncation_removes) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  struct page *page = grab_cache_page(file.mapping(), 7);
  REQUIRE_TRUE(page);
  EXPECT_TRUE(PageLocked(page));
  EXPECT_FALSE(PageUptodate(page));
  unlock_page(page);
  truncate_inode_pages(file.mapping(), 0);
  EXPECT_EQ(page->mapping, (struct address_space *)NULL);
  EXPECT_EQ(page_count(page), 1);
  EXPECT_EQ(file.mapping()->nrpages, 0ul);
  page_cache_release(page);
}

CASE(page_cache, truncation_clears_behind_the_new_end) {
  buffer data(2 * PAGE_SIZE);
  memset(data.data, 'x', 2 * PAGE_SIZE);
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.write(data.data, 2 * PAGE_SIZE, 0), (long)(2 * PAGE_SIZE));
  EXPECT_EQ(file.truncate(100), 0);
  EXPECT_EQ(file.mapping()->nrpages, 1ul);
  EXPECT_EQ(file.truncate(5000), 0);
  EXPECT_EQ(file.read(data.data, 2 * PAGE_SIZE, 0), 5000);
  EXPECT_EQ(data.data[99], 'x');
  for (int i = 100; i < 5000; i++) {
    if (data.data[i] == 0) continue;
    EXPECT_EQ(i, -1);
    break;
  }
}

CASE(page_cache, read_cache_page_fills_once_and_again_after_a_failure) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  filler_calls = 0;
  filler_result = -EIO;
  struct page *page = read_cache_page(file.mapping(), 2, fill_with_index, NULL);
  EXPECT_TRUE(IS_ERR(page));
  EXPECT_EQ(PTR_ERR(page), -EIO);
  filler_result = 0;
  page = read_cache_page(file.mapping(), 2, fill_with_index, NULL);
  REQUIRE_TRUE(!IS_ERR(page));
  EXPECT_EQ(*(char *)page_address(page), 'c');
  page_cache_release(page);
  page = read_cache_page(file.mapping(), 2, fill_with_index, NULL);
  REQUIRE_TRUE(!IS_ERR(page));
  page_cache_release(page);
  EXPECT_EQ(filler_calls, 2);
}

CASE(page_cache, invalidation_spares_what_is_dirty_or_used) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.write("x", 1, 0), 1);
  EXPECT_EQ(invalidate_inode_pages(file.mapping()), 0ul);
  EXPECT_EQ(filemap_write_and_wait(file.mapping()), 0);
  struct page *page = find_get_page(file.mapping(), 0);
  REQUIRE_TRUE(page);
  EXPECT_EQ(invalidate_inode_pages(file.mapping()), 0ul);
  page_cache_release(page);
  EXPECT_EQ(invalidate_inode_pages(file.mapping()), 1ul);
  char seen = 0;
  EXPECT_EQ(file.read(&seen, 1, 0), 1);
  EXPECT_EQ(seen, 'x');
}

CASE(page_cache, append_goes_to_the_end) {
  open_file file("/f", O_RDWR | O_CREAT | O_APPEND);
  REQUIRE_EQ(file.error(), 0);
  char seen[7] = {};
  EXPECT_EQ(file.write("abc", 3, 0), 3);
  EXPECT_EQ(file.write("def", 3, 0), 3);
  EXPECT_EQ(file.read(seen, 6, 0), 6);
  EXPECT_STREQ(seen, "abcdef");
}

CASE(page_cache, a_write_beyond_the_limits_is_cut_or_refused) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  const loff_t maximum = (loff_t)file.inode()->i_sb->s_maxbytes;
  loff_t pos = maximum - 2;
  size_t count = 10;
  EXPECT_EQ(generic_write_checks(file.get(), &pos, &count, 0), 0);
  EXPECT_EQ(count, 2ul);
  pos = maximum;
  count = 0;
  EXPECT_EQ(generic_write_checks(file.get(), &pos, &count, 0), 0);
  count = 1;
  EXPECT_EQ(generic_write_checks(file.get(), &pos, &count, 0), -EFBIG);
  pos = -1;
  EXPECT_EQ(generic_write_checks(file.get(), &pos, &count, 0), -EINVAL);
}

CASE(page_cache, the_tasks_own_size_limit_cuts_and_refuses) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  struct rlimit *limit = &current->signal->rlim[RLIMIT_FSIZE];
  const struct rlimit old = *limit;
  limit->rlim_cur = 100;
  loff_t pos = 90;
  size_t count = 20;
  EXPECT_EQ(generic_write_checks(file.get(), &pos, &count, 0), 0);
  EXPECT_EQ(count, 10ul);
  pos = 100;
  EXPECT_EQ(generic_write_checks(file.get(), &pos, &count, 0), -EFBIG);
  EXPECT_EQ(file.truncate(101), -EFBIG);
  limit->rlim_cur = 1ul << 63;  // beyond every position, and not "no limit"
  EXPECT_EQ(file.truncate(102), 0);
  *limit = old;
  flush_signals(current);
}

CASE(page_cache, a_bad_user_address_is_refused) {
  open_file file("/f");
  REQUIRE_EQ(file.error(), 0);
  loff_t pos = 0;
  set_fs(USER_DS);
  EXPECT_EQ(vfs_write(file.get(), (const char *)~0xffful, 10, &pos), -EFAULT);
  EXPECT_EQ(vfs_read(file.get(), (char *)~0xffful, 10, &pos), -EFAULT);
  EXPECT_EQ(i_size_read(file.inode()), 0);
}

namespace {

struct lock_race {
  struct page *page;
  int inside;
  int clashes;
  struct completion done;
};

int take_lock_often(void *data) {
  lock_race *race = (lock_race *)data;
  for (int i = 0; i < 500; i++) {
    lock_page(race->page);
    if (race->inside++) race->clashes++;
    cond_resched();
    race->inside--;
    unlock_page(race->page);
  }
  complete(&race->done);
  return 0;
}

}  // namespace

CASE(page_cache, one_thread_at_a_time_has_the_page_lock) {
  lock_race race = {};
  init_completion(&race.done);
  race.page = alloc_page(GFP_KERNEL);
  REQUIRE_TRUE(race.page);
  for (int i = 0; i < 3; i++)
    EXPECT_FALSE(IS_ERR(kthread_run(take_lock_often, &race, "lock%d", i)));
  for (int i = 0; i < 3; i++) wait_for_completion(&race.done);
  EXPECT_EQ(race.clashes, 0);
  __free_page(race.page);
}

namespace {

// Threads at work on one file: each on pages of its own, among them one that only writes back and
// drops.
struct crowd {
  struct file *file;
  int errors;
  atomic_t next;
  struct completion done;
};

long move(struct file *file, char *data, size_t len, loff_t pos, int rw) {
  return rw == WRITE ? vfs_write(file, data, len, &pos) : vfs_read(file, data, len, &pos);
}

int write_and_check(void *data) {
  crowd *c = (crowd *)data;
  const int me = atomic_inc_return(&c->next);
  kernel_buffers kernel;
  char written[300], seen[300];
  for (int i = 0; i < 150; i++) {
    const loff_t pos = (loff_t)(i % 7) * 4 * 4096 + me * 4096 - 40;
    fill_pattern(written, 40, (unsigned)(i + me));
    if (move(c->file, written, 40, pos, WRITE) != 40)
      __atomic_add_fetch(&c->errors, 1, __ATOMIC_RELAXED);
    if (move(c->file, seen, 40, pos, READ) != 40 || memcmp(written, seen, 40))
      __atomic_add_fetch(&c->errors, 1, __ATOMIC_RELAXED);
  }
  complete(&c->done);
  return 0;
}

int write_back_and_drop(void *data) {
  crowd *c = (crowd *)data;
  struct address_space *mapping = c->file->f_mapping;
  for (int i = 0; i < 100; i++) {
    if (filemap_write_and_wait(mapping)) __atomic_add_fetch(&c->errors, 1, __ATOMIC_RELAXED);
    invalidate_inode_pages(mapping);
    cond_resched();
  }
  complete(&c->done);
  return 0;
}

int truncate_and_grow(void *data) {
  crowd *c = (crowd *)data;
  for (int i = 0; i < 60; i++) {
    const loff_t size = (loff_t)(32 + i % 5) * 4096 + 17;
    if (do_truncate(c->file->f_dentry, size, 0, NULL))
      __atomic_add_fetch(&c->errors, 1, __ATOMIC_RELAXED);
    cond_resched();
  }
  complete(&c->done);
  return 0;
}

}  // namespace

CASE(page_cache, many_threads_on_one_file) {
  open_file file("/f", O_RDWR | O_CREAT | O_NOATIME);
  REQUIRE_EQ(file.error(), 0);
  EXPECT_EQ(file.truncate(32 * 4096), 0);
  crowd c = {};
  c.file = file.get();
  init_completion(&c.done);
  int (*const work[])(void *) = {write_and_check, write_and_check, write_and_check,
                                 write_back_and_drop, truncate_and_grow};
  for (unsigned i = 0; i < ARRAY_SIZE(work); i++)
    EXPECT_FALSE(IS_ERR(kthread_run(work[i], &c, "crowd%u", i)));
  for (unsigned i = 0; i < ARRAY_SIZE(work); i++) wait_for_completion(&c.done);
  EXPECT_EQ(c.errors, 0);
}

CASE(radix_tree, items_and_tags_at_far_indices) {
  static const unsigned long at[] = {0, 1, 63, 64, 4095, 4096, 1ul << 30, ~0ul - 1, ~0ul};
  const unsigned n = ARRAY_SIZE(at);
  int items[ARRAY_SIZE(at)];
  void *found[ARRAY_SIZE(at)];
  struct radix_tree_root root;
  INIT_RADIX_TREE(&root, GFP_ATOMIC);
  for (unsigned i = n; i-- > 0;) EXPECT_EQ(radix_tree_insert(&root, at[i], &items[i]), 0);
  EXPECT_EQ(radix_tree_insert(&root, 64, &items[0]), -EEXIST);
  for (unsigned i = 0; i < n; i++) EXPECT_EQ(radix_tree_lookup(&root, at[i]), (void *)&items[i]);
  EXPECT_EQ(radix_tree_lookup(&root, 2), (void *)NULL);
  EXPECT_EQ(radix_tree_gang_lookup(&root, found, 0, n), n);
  for (unsigned i = 0; i < n; i++) EXPECT_EQ(found[i], (void *)&items[i]);
  EXPECT_EQ(radix_tree_gang_lookup(&root, found, 65, 2), 2u);
  EXPECT_EQ(found[0], (void *)&items[4]);

  EXPECT_FALSE(radix_tree_tagged(&root, PAGECACHE_TAG_DIRTY));
  radix_tree_tag_set(&root, 64, PAGECACHE_TAG_DIRTY);
  radix_tree_tag_set(&root, ~0ul, PAGECACHE_TAG_DIRTY);
  EXPECT_EQ(radix_tree_gang_lookup_tag(&root, found, 0, n, PAGECACHE_TAG_DIRTY), 2u);
  EXPECT_EQ(found[1], (void *)&items[n - 1]);
  EXPECT_EQ(radix_tree_gang_lookup_tag(&root, found, 0, n, PAGECACHE_TAG_WRITEBACK), 0u);
  radix_tree_tag_clear(&root, 64, PAGECACHE_TAG_DIRTY);
  EXPECT_EQ(radix_tree_gang_lookup_tag(&root, found, 0, n, PAGECACHE_TAG_DIRTY), 1u);
  EXPECT_EQ(found[0], (void *)&items[n - 1]);
  EXPECT_TRUE(radix_tree_tagged(&root, PAGECACHE_TAG_DIRTY));

  for (unsigned i = n; i-- > 0;) EXPECT_EQ(radix_tree_delete(&root, at[i]), (void *)&items[i]);
  EXPECT_EQ(radix_tree_delete(&root, 0), (void *)NULL);
  EXPECT_FALSE(radix_tree_tagged(&root, PAGECACHE_TAG_DIRTY));
  EXPECT_EQ(root.rnode, (struct radix_tree_node *)NULL);
}
