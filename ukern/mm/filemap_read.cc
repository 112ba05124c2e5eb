// SPDX-License-Identifier: GPL-2.0
// Reading a file through its cached pages.
#include <linux/aio.h>
#include <linux/backing-dev.h>
#include <linux/fcntl.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/pagemap.h>
#include <linux/swap.h>
#include <linux/uio.h>

#include "ukern/mm/mm_internal.h"

namespace {

// Reads a locked page that is not up to date. True: it is up to date now. False: it has been
// released; if *error is 0 the caller must look the index up again.
bool fill_page(struct address_space *mapping, struct file *filp, struct page *page, int *error) {
  const int result = mapping->a_ops->readpage(filp, page);  // unlocks it
  if (result == 0 && !PageUptodate(page)) {
    lock_page(page);  // waits for the end of the read
    const bool truncated = !page->mapping;
    unlock_page(page);
    if (!PageUptodate(page)) {
      page_cache_release(page);
      *error = truncated ? 0 : -EIO;
      return false;
    }
  }
  if (result == 0) return true;
  page_cache_release(page);
  *error = result == AOP_TRUNCATED_PAGE ? 0 : result;
  return false;
}

// Adds a locked page for this index to the cache. NULL with *error 0: another task has added one.
struct page *new_page(struct address_space *mapping, unsigned long index, int *error) {
  struct page *page = page_cache_alloc(mapping);
  *error = page ? add_to_page_cache_lru(page, mapping, index, GFP_KERNEL) : -ENOMEM;
  if (!*error) return page;
  if (page) page_cache_release(page);
  if (*error == -EEXIST) *error = 0;
  return nullptr;
}

// Gets the page at an index, up to date, with a reference; NULL with *error set on a failure.
struct page *get_filled_page(struct address_space *mapping, struct file *filp, unsigned long index,
                             int *error) {
  *error = 0;
  while (!*error) {
    struct page *page = find_get_page(mapping, index);
    if (page && PageUptodate(page)) return page;
    if (page) {
      lock_page(page);
      if (PageUptodate(page) || !page->mapping) {
        const bool valid = page->mapping != nullptr;
        unlock_page(page);
        if (valid) return page;
        page_cache_release(page);
        continue;
      }
    } else {
      page = new_page(mapping, index, error);
      if (!page) continue;
    }
    if (fill_page(mapping, filp, page, error)) return page;
  }
  return nullptr;
}

// Number of bytes of the page at `index` that lie inside the file, from `offset` on.
unsigned long bytes_in_file(struct inode *inode, unsigned long index, unsigned long offset) {
  const loff_t size = i_size_read(inode);
  const loff_t from =
      (static_cast<loff_t>(index) << PAGE_CACHE_SHIFT) + static_cast<loff_t>(offset);
  if (from >= size) return 0;
  const auto left = static_cast<unsigned long>(size - from);
  return min(left, static_cast<unsigned long>(PAGE_CACHE_SIZE) - offset);
}

}  // namespace

void file_ra_state_init(struct file_ra_state *ra, struct address_space *mapping) {
  ra->ra_pages = mapping->backing_dev_info->ra_pages;
  ra->prev_page = ~0ul;
}

void do_generic_mapping_read(struct address_space *mapping, struct file_ra_state *ra,
                             struct file *filp, loff_t *ppos, read_descriptor_t *desc,
                             read_actor_t actor) {
  struct inode *inode = mapping->host;
  unsigned long index = static_cast<unsigned long>(*ppos >> PAGE_CACHE_SHIFT);
  unsigned long offset = static_cast<unsigned long>(*ppos & ~PAGE_CACHE_MASK);
  unsigned long prev_index =
      __atomic_load_n(&ra->prev_page, __ATOMIC_RELAXED);  // a file may have several readers

  while (bytes_in_file(inode, index, offset)) {
    cond_resched();
    int error;
    struct page *page = get_filled_page(mapping, filp, index, &error);
    if (!page) {
      desc->error = error;
      break;
    }
    // The size again: the page may have been read after a truncation.
    const unsigned long bytes = bytes_in_file(inode, index, offset);
    if (!bytes) {
      page_cache_release(page);
      break;
    }
    if (prev_index != index) mark_page_accessed(page);
    prev_index = index;
    const auto taken = static_cast<unsigned long>(actor(desc, page, offset, bytes));
    page_cache_release(page);
    offset += taken;
    index += offset >> PAGE_CACHE_SHIFT;
    offset &= ~PAGE_CACHE_MASK;
    if (taken != bytes || !desc->count) break;
  }
  __atomic_store_n(&ra->prev_page, prev_index, __ATOMIC_RELAXED);
  *ppos = (static_cast<loff_t>(index) << PAGE_CACHE_SHIFT) + static_cast<loff_t>(offset);
  if (filp) file_accessed(filp);
}

int file_read_actor(read_descriptor_t *desc, struct page *page, unsigned long offset,
                    unsigned long size) {
  if (size > desc->count) size = desc->count;
  auto *address = static_cast<char *>(kmap(page));
  const unsigned long left = __copy_to_user(desc->arg.buf, address + offset, size);
  kunmap(page);
  if (left) {
    size -= left;
    desc->error = -EFAULT;
  }
  desc->count -= size;
  desc->written += size;
  desc->arg.buf += size;
  return static_cast<int>(size);
}

ssize_t checked_length(const struct iovec *iov, unsigned long *nr_segs, int type) {
  size_t count = 0;
  for (unsigned long seg = 0; seg < *nr_segs; seg++) {
    const size_t length = iov[seg].iov_len;
    if (__builtin_add_overflow(count, length, &count) || static_cast<ssize_t>(count | length) < 0)
      return -EINVAL;
    if (access_ok(type, iov[seg].iov_base, length)) continue;
    if (seg == 0) return -EFAULT;
    *nr_segs = seg;
    count -= length;
    break;
  }
  return static_cast<ssize_t>(count);
}

static ssize_t direct_read(struct kiocb *iocb, const struct iovec *iov, unsigned long nr_segs,
                           loff_t *ppos) {
  struct file *filp = iocb->ki_filp;
  const loff_t pos = *ppos;
  ssize_t result = 0;
  if (pos < i_size_read(filp->f_mapping->host)) {
    result = generic_file_direct_IO(READ, iocb, iov, pos, nr_segs);
    if (result > 0 && !is_sync_kiocb(iocb)) result = -EIOCBQUEUED;
    if (result > 0) *ppos = pos + result;
  }
  file_accessed(filp);
  return result;
}

static ssize_t read_segments(struct kiocb *iocb, const struct iovec *iov, unsigned long nr_segs,
                             loff_t *ppos) {
  struct file *filp = iocb->ki_filp;
  const ssize_t count = checked_length(iov, &nr_segs, VERIFY_WRITE);
  if (count <= 0) return count;
  if (filp->f_flags & O_DIRECT) return direct_read(iocb, iov, nr_segs, ppos);

  ssize_t result = 0;
  for (unsigned long seg = 0; seg < nr_segs; seg++) {
    read_descriptor_t desc = {};
    desc.arg.buf = static_cast<char *>(iov[seg].iov_base);
    desc.count = iov[seg].iov_len;
    if (!desc.count) continue;
    do_generic_mapping_read(filp->f_mapping, &filp->f_ra, filp, ppos, &desc, file_read_actor);
    result += static_cast<ssize_t>(desc.written);
    if (desc.error) return result ? result : desc.error;
  }
  return result;
}

ssize_t generic_file_aio_read(struct kiocb *iocb, char __user *buf, size_t count, loff_t pos) {
  const struct iovec iov = {buf, count};
  BUG_ON(iocb->ki_pos != pos);
  return read_segments(iocb, &iov, 1, &iocb->ki_pos);
}

ssize_t generic_file_read(struct file *filp, char __user *buf, size_t count, loff_t *ppos) {
  const struct iovec iov = {buf, count};
  struct kiocb kiocb;
  init_sync_kiocb(&kiocb, filp);
  const ssize_t result = read_segments(&kiocb, &iov, 1, ppos);
  return result == -EIOCBQUEUED ? wait_on_sync_kiocb(&kiocb) : result;
}

ssize_t generic_file_sendfile(struct file *in_file, loff_t *ppos, size_t count, read_actor_t actor,
                              void *target) {
  if (!count) return 0;
  read_descriptor_t desc = {};
  desc.count = count;
  desc.arg.data = target;
  do_generic_mapping_read(in_file->f_mapping, &in_file->f_ra, in_file, ppos, &desc, actor);
  return desc.written ? static_cast<ssize_t>(desc.written) : desc.error;
}
