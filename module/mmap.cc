// SPDX-License-Identifier: GPL-2.0
// The layer's own page cache: pages are read from the inode's shared lower file and written through
// to it at once. Only pages dirtied through a mapping are written later, by writepage.

#include "tarn.h"
#include "ox_guard.h"
#include "trans.h"

namespace {

loff_t page_start(pgoff_t index) {
  return static_cast<loff_t>(index) << PAGE_CACHE_SHIFT;
}

char *page_text(struct page *page) {
  return static_cast<char *>(page_address(page));
}

// Two operations truncate their result to an int.
long as_int(long result) {
  return static_cast<int>(result);
}

void set_uptodate(struct page *page, bool uptodate) {
  if (uptodate)
    SetPageUptodate(page);
  else
    ClearPageUptodate(page);
}

}  // namespace

namespace {

// Returns the bytes written to the lower file, or its error.
ssize_t write_below(struct inode *inode, const char *buffer, loff_t offset, size_t size) {
  struct tarn_inode_info *info = tarn_inode(inode);
  ssize_t written;
  {
    mutex_guard guard(info->lower_file_mutex);
    struct file *lower_file = info->lower_file;
    BUG_ON(!lower_file);
    kernel_ds_guard kernel_ds;
    lower_file->f_pos = offset;
    written = vfs_write(lower_file, reinterpret_cast<const char __user *>(buffer), size,
                        &lower_file->f_pos);
  }
  __mark_inode_dirty(inode, I_DIRTY_SYNC);
  // Programs get -EINVAL for every error: log the real one.
  if (written < 0 && printk_ratelimit())
    printk("<4>tarn_write_lower: inode %lu, %lu bytes at %lld: rc=%d\n", inode->i_ino,
           static_cast<unsigned long>(size), offset, static_cast<int>(written));
  return written;
}

}  // namespace

// A short write counts as success; every failure is -EINVAL.
int tarn_write_lower(struct inode *inode, char *buffer, loff_t offset, size_t size) {
  return write_below(inode, buffer, offset, size) < 0 ? -EINVAL : 0;
}

int tarn_write_lower_page_segment(struct inode *inode, struct page *page, size_t offset_in_page,
                                  size_t size) {
  cond_resched();
  return tarn_write_lower(inode, page_text(page) + offset_in_page,
                          page_start(page->index) + static_cast<loff_t>(offset_in_page), size);
}

// A short read (at the end of the lower file) counts as success and does not change the rest of the
// buffer.
int tarn_read_lower(char *buffer, loff_t offset, size_t size, struct inode *inode) {
  struct tarn_inode_info *info = tarn_inode(inode);
  ssize_t read;
  {
    mutex_guard guard(info->lower_file_mutex);
    struct file *lower_file = info->lower_file;
    BUG_ON(!lower_file);
    kernel_ds_guard kernel_ds;
    lower_file->f_pos = offset;
    read = vfs_read(lower_file, reinterpret_cast<char __user *>(buffer), size, &lower_file->f_pos);
  }
  return read < 0 ? -EINVAL : 0;
}

// Reads to the start of the page whatever offset_in_page is.
int tarn_read_lower_page_segment(struct page *page, pgoff_t index, size_t offset_in_page,
                                 size_t size, struct inode *inode) {
  cond_resched();
  return tarn_read_lower(page_text(page), page_start(index) + static_cast<loff_t>(offset_in_page),
                         size, inode);
}

// Returns a page of the lower file's own cache, locked and with a reference for the caller, or an
// error pointer.
struct page *tarn_get_locked_page(struct file *file, pgoff_t index) {
  struct address_space *mapping = tarn_lower_inode(file->f_dentry->d_inode)->i_mapping;
  struct page *page =
      read_cache_page(mapping, index, reinterpret_cast<filler_t *>(mapping->a_ops->readpage), file);
  if (IS_ERR(page)) return page;
  cond_resched();
  lock_page(page);
  return page;
}

namespace {

// Reads a whole page; zeros beyond the lower file's end.
int read_page(struct inode *inode, struct page *page) {
  // Compares by difference: the end of the last possible page would overflow.
  const loff_t rest = i_size_read(tarn_lower_inode(inode)) - page_start(page->index);
  if (rest < static_cast<loff_t>(PAGE_CACHE_SIZE)) memset(page_text(page), 0, PAGE_CACHE_SIZE);
  return tarn_read_lower_page_segment(page, page->index, 0, PAGE_CACHE_SIZE, inode);
}

int tarn_readpage(struct file *, struct page *page) {
  const int rc = read_page(page->mapping->host, page);
  set_uptodate(page, rc == 0);
  unlock_page(page);
  return rc;
}

int tarn_prepare_write(struct file *, struct page *page, unsigned from, unsigned) {
  struct inode *inode = page->mapping->host;
  if (!PageUptodate(page)) {
    const int rc = read_page(inode, page);
    set_uptodate(page, rc == 0);
    if (rc) return rc;
  }
  const loff_t start = page_start(page->index);
  if (page->index && start > i_size_read(inode)) {
    const int rc = vmtruncate(inode, start);
    if (rc) return rc;
  }
  if (i_size_read(inode) == start && from) memset(page_text(page), 0, PAGE_CACHE_SIZE);
  return 0;
}

// The page stays clean: its data is already in the lower file. After a short lower write the page
// is read again before its next use, and `cut_at` tells the writer where it ended.
int tarn_commit_write(struct file *, struct page *page, unsigned from, unsigned to) {
  struct inode *inode = page->mapping->host;
  cond_resched();
  const loff_t at = page_start(page->index) + from;
  const ssize_t written = write_below(inode, page_text(page) + from, at, to - from);
  if (written < static_cast<ssize_t>(to - from)) {
    ClearPageUptodate(page);
    struct tarn_inode_info *info = tarn_inode(inode);
    if (info->cut_at == TARN_NOT_CUT) info->cut_at = at + max(written, static_cast<ssize_t>(0));
  }
  const loff_t end = page_start(page->index) + to;
  if (end > i_size_read(inode)) i_size_write(inode, end);
  return written < 0 ? -EINVAL : 0;
}

// Captures a page dirtied through a mapping, by the path of the lower dentry. So it reaches a rule
// only if that dentry is itself of this layer (a mount over a mount); other file systems' d_fsdata
// is not ours to read. Capture reads the page as user memory, which works in the write-back
// threads, as they run with the kernel's address limit; in a process's own msync the copy fails.
void capture_page(struct dentry *lower_dentry, struct page *page) {
  if (lower_dentry->d_op != &tarn_dops || !tarn_dentry(lower_dentry)) return;
  cond_resched();
  tarn_write_sync(lower_dentry, reinterpret_cast<const char __user *>(page_text(page)),
                  PAGE_CACHE_SIZE, page_start(page->index));
}

int keep_for_later(struct page *page, struct writeback_control *wbc) {
  redirty_page_for_writepage(wbc, page);
  unlock_page(page);
  return 0;
}

// Writes the whole page whatever the file's size, so a mapped last page extends the lower file.
// Memory reclaim may hold locks of this file: it leaves the page to the write-back threads.
// set_page_writeback() removes the page from the list of dirty ones.
int tarn_writepage(struct page *page, struct writeback_control *wbc) {
  struct inode *inode = page->mapping->host;
  BUG_ON(!tarn_inode(inode)->lower_file);
  if (wbc->for_reclaim) return keep_for_later(page, wbc);
  capture_page(tarn_inode(inode)->lower_file->f_dentry, page);

  const int rc = tarn_write_lower_page_segment(inode, page, 0, PAGE_CACHE_SIZE);
  set_uptodate(page, rc == 0);
  if (rc < 0) return keep_for_later(page, wbc);
  set_page_writeback(page);
  unlock_page(page);
  end_page_writeback(page);
  return 0;
}

sector_t tarn_bmap(struct address_space *mapping, sector_t block) {
  struct address_space *lower = tarn_lower_inode(mapping->host)->i_mapping;
  if (!lower->a_ops->bmap) return 0;
  return static_cast<sector_t>(as_int(static_cast<long>(lower->a_ops->bmap(lower, block))));
}

ssize_t tarn_direct_IO(int rw, struct kiocb *iocb, const struct iovec *iov, loff_t offset,
                       unsigned long nr_segs) {
  struct file *file = iocb->ki_filp;
  struct file *lower_file = tarn_lower_file(file);
  BUG_ON(!lower_file);
  const struct address_space_operations *lower_ops =
      tarn_lower_inode(file->f_dentry->d_inode)->i_mapping->a_ops;
  if (!lower_ops->direct_IO) {
    printk("tarn_direct_IO: lower_file not support O_DIRECT yet\n");
    return -EINVAL;
  }
  iocb->ki_filp = lower_file;
  const ssize_t rc = lower_ops->direct_IO(rw, iocb, iov, offset, nr_segs);
  iocb->ki_filp = file;
  return as_int(rc);
}

}  // namespace

const struct address_space_operations tarn_aops = {
    .writepage = tarn_writepage,
    .readpage = tarn_readpage,
    .prepare_write = tarn_prepare_write,
    .commit_write = tarn_commit_write,
    .bmap = tarn_bmap,
    .direct_IO = tarn_direct_IO,
};
