// SPDX-License-Identifier: GPL-2.0
// memfs: file data. The page cache uses the node's blocks like those of a disk: a page is read from
// its block, prepare_write allocates the block (and may find the disk full), and write-back copies
// the page to it. A page dirtied through a mapping over a hole gets its block only at write-back.
#include "ukern/fs/memfs_internal.h"

#include <linux/aio.h>
#include <linux/err.h>
#include <linux/fcntl.h>
#include <linux/highmem.h>
#include <linux/mm.h>
#include <linux/string.h>
#include <linux/slab.h>
#include <linux/uio.h>
#include <linux/writeback.h>

#include "ukern/fs/direct_io.h"
#include "ukern/sync/guard.h"

namespace {

// The page is locked. A page without a block is zero.
void fill_from_block(struct inode *inode, struct page *page) {
  if (struct page *block = memfs_block(inode, page->index, 0)) {
    copy_highpage(page, block);
    put_page(block);
  } else {
    clear_highpage(page);
  }
  SetPageUptodate(page);
}

int memfs_readpage(struct file *, struct page *page) {
  struct inode *inode = page->mapping->host;
  const int error = memfs_check(inode->i_sb, MEMFS_OP_READPAGE);
  if (!error) fill_from_block(inode, page);
  unlock_page(page);
  return error;
}

int memfs_prepare_write(struct file *, struct page *page, unsigned from, unsigned to) {
  struct inode *inode = page->mapping->host;
  if (int error = memfs_check(inode->i_sb, MEMFS_OP_PREPARE_WRITE)) return error;
  struct page *block = memfs_block(inode, page->index, 1);
  if (IS_ERR(block)) return static_cast<int>(PTR_ERR(block));
  put_page(block);
  if (!PageUptodate(page) && (from != 0 || to != PAGE_CACHE_SIZE)) fill_from_block(inode, page);
  return 0;
}

int memfs_commit_write(struct file *, struct page *page, unsigned, unsigned to) {
  struct inode *inode = page->mapping->host;
  if (int error = memfs_check(inode->i_sb, MEMFS_OP_COMMIT_WRITE)) return error;
  const loff_t end = page_offset(page) + to;
  SetPageUptodate(page);
  set_page_dirty(page);
  if (end > i_size_read(inode)) {
    i_size_write(inode, end);
    mark_inode_dirty(inode);
  }
  return 0;
}

// Clears what a mapping wrote past the end of the file. False: the whole page is past the end.
bool clear_behind_end(struct inode *inode, struct page *page) {
  const loff_t size = i_size_read(inode);
  const loff_t start = page_offset(page);
  if (start >= size) return false;
  if (size - start < static_cast<loff_t>(PAGE_CACHE_SIZE))
    memclear_highpage_flush(
        page, static_cast<unsigned>(size - start),
        static_cast<unsigned>(PAGE_CACHE_SIZE - static_cast<unsigned long>(size - start)));
  return true;
}

int memfs_writepage(struct page *page, struct writeback_control *) {
  struct inode *inode = page->mapping->host;
  int error = memfs_check(inode->i_sb, MEMFS_OP_WRITEPAGE);
  test_set_page_writeback(page);
  if (!error && clear_behind_end(inode, page)) {
    struct page *block = memfs_block(inode, page->index, 1);
    if (IS_ERR(block)) {
      error = static_cast<int>(PTR_ERR(block));
    } else {
      copy_highpage(block, page);
      put_page(block);
    }
  }
  if (error) SetPageError(page);
  unlock_page(page);
  end_page_writeback(page);
  return error;
}

sector_t memfs_bmap(struct address_space *mapping, sector_t index) {
  struct page *block = memfs_block(mapping->host, index, 0);
  if (!block) return 0;
  put_page(block);
  return (mapping->host->i_ino << 24) + index + 1;  // arbitrary, but unique for each block
}

// Moves a piece of one block. Returns the bytes moved or -errno.
ssize_t direct_piece(int rw, struct inode *inode, char __user *buf, loff_t pos, size_t length) {
  const auto offset = static_cast<size_t>(pos & ~PAGE_MASK);
  struct page *block =
      memfs_block(inode, static_cast<unsigned long>(pos >> PAGE_SHIFT), rw == WRITE);
  if (IS_ERR(block)) return PTR_ERR(block);
  if (rw == READ && !block) return clear_user(buf, length) ? -EFAULT : static_cast<ssize_t>(length);
  auto *data = static_cast<char *>(page_address(block)) + offset;
  const unsigned long left = rw == WRITE ? copy_from_user(data, buf, static_cast<unsigned>(length))
                                         : copy_to_user(buf, data, static_cast<unsigned>(length));
  put_page(block);
  return left ? -EFAULT : static_cast<ssize_t>(length);
}

ssize_t direct_segment(int rw, struct inode *inode, const struct iovec *iov, loff_t pos) {
  ssize_t done = 0;
  size_t left = iov->iov_len;
  if (rw == READ) {
    const loff_t size = i_size_read(inode);
    if (pos >= size) return 0;
    if (left > static_cast<size_t>(size - pos)) left = static_cast<size_t>(size - pos);
  }
  while (left) {
    const size_t room = PAGE_SIZE - static_cast<size_t>((pos + done) & ~PAGE_MASK);
    const size_t part = left < room ? left : room;
    const ssize_t moved =
        direct_piece(rw, inode, static_cast<char *>(iov->iov_base) + done, pos + done, part);
    if (moved < 0) return done ? done : moved;
    done += moved;
    left -= part;
  }
  return done;
}

ssize_t direct_segments(int rw, struct inode *inode, const struct iovec *iov, loff_t offset,
                        unsigned long nr_segs) {
  ssize_t done = 0;
  for (unsigned long seg = 0; seg < nr_segs; seg++) {
    const ssize_t part = direct_segment(rw, inode, &iov[seg], offset + done);
    if (part < 0) return done ? done : part;
    done += part;
    if (static_cast<size_t>(part) < iov[seg].iov_len) break;
  }
  return done;
}

struct queued_request {
  struct list_head list;  // in memfs_sb.queued
  struct kiocb *iocb;
  ssize_t result;
};

// The data has been moved; only the completion is deferred.
ssize_t queue_request(struct memfs_sb *info, struct kiocb *iocb, ssize_t result) {
  auto *queued =
      static_cast<struct queued_request *>(kmalloc(sizeof(struct queued_request), GFP_KERNEL));
  if (!queued) return -ENOMEM;
  queued->iocb = iocb;
  queued->result = result;
  {
    SpinGuard guard(info->lock);
    list_add_tail(&queued->list, &info->queued);
  }
  wake_up(&info->queued_wait);
  return -EIOCBQUEUED;
}

struct queued_request *take_request(struct memfs_sb *info) {
  struct queued_request *queued = nullptr;
  SpinGuard guard(info->lock);
  if (!list_empty(&info->queued)) {
    queued = list_entry(info->queued.next, struct queued_request, list);
    list_del(&queued->list);
  }
  return queued;
}

ssize_t memfs_direct_IO(int rw, struct kiocb *iocb, const struct iovec *iov, loff_t offset,
                        unsigned long nr_segs) {
  struct inode *inode = iocb->ki_filp->f_mapping->host;
  if (int error = memfs_check(inode->i_sb, MEMFS_OP_DIRECT_IO)) return error;
  struct memfs_sb *info = memfs_s(inode->i_sb);
  const struct iovec first = {.iov_base = iov->iov_base,
                              .iov_len = min(iov->iov_len, static_cast<size_t>(512))};
  if (info->switches & MEMFS_SHORT_DIRECT) {
    iov = &first;
    nr_segs = 1;
  }
  const size_t count = iov_length(iov, nr_segs);
  if ((offset | static_cast<loff_t>(count)) & 511) return -EINVAL;
  const ssize_t done = direct_segments(rw, inode, iov, offset, nr_segs);
  if ((info->switches & MEMFS_QUEUE) && direct_io_is_all(rw, done, count))
    return queue_request(info, iocb, done);
  return direct_io_result(rw, iocb, done, count);
}

}  // namespace

void memfs_complete(struct super_block *sb) {
  struct memfs_sb *info = memfs_s(sb);
  struct queued_request *queued;
  wait_event(info->queued_wait, (queued = take_request(info)));
  struct kiocb *iocb = queued->iocb;
  const ssize_t result = queued->result;
  kfree(queued);
  aio_complete(iocb, result, 0);
}

int memfs_open(struct inode *inode, struct file *file) {
  if (int error = memfs_check(inode->i_sb, MEMFS_OP_OPEN)) return error;
  return generic_file_open(inode, file);
}

int memfs_fsync(struct file *, struct dentry *dentry, int datasync) {
  struct inode *inode = dentry->d_inode;
  if (int error = memfs_check(inode->i_sb, MEMFS_OP_FSYNC)) return error;
  if (datasync && !(inode->i_state & I_DIRTY_DATASYNC)) return 0;
  return write_inode_now(inode, 1);
}

#define MEMFS_AOPS                                                                                \
  .writepage = memfs_writepage, .readpage = memfs_readpage, .prepare_write = memfs_prepare_write, \
  .commit_write = memfs_commit_write, .bmap = memfs_bmap

#define MEMFS_FILE_FOPS_HEAD                                                                   \
  .llseek = generic_file_llseek, .read = generic_file_read, .aio_read = generic_file_aio_read, \
  .write = generic_file_write, .aio_write = generic_file_aio_write, .mmap = generic_file_mmap, \
  .open = memfs_open

#define MEMFS_FILE_IOPS \
  .truncate = memfs_truncate, .setattr = memfs_setattr, .getattr = memfs_getattr

#define MEMFS_XATTR_OPS                                                                 \
  .setxattr = memfs_setxattr, .getxattr = memfs_getxattr, .listxattr = memfs_listxattr, \
  .removexattr = memfs_removexattr

const struct address_space_operations memfs_aops[2] = {{MEMFS_AOPS, .direct_IO = memfs_direct_IO},
                                                       {MEMFS_AOPS}};
const struct file_operations memfs_file_fops[2] = {
    {MEMFS_FILE_FOPS_HEAD, .fsync = memfs_fsync, .sendfile = generic_file_sendfile},
    {MEMFS_FILE_FOPS_HEAD, .sendfile = generic_file_sendfile}};
struct inode_operations memfs_file_iops[2] = {{MEMFS_FILE_IOPS, MEMFS_XATTR_OPS},
                                              {MEMFS_FILE_IOPS}};
