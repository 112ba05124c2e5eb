// SPDX-License-Identifier: GPL-2.0
// Writing a file through its cached pages.
#include <linux/aio.h>
#include <linux/backing-dev.h>
#include <linux/capability.h>
#include <linux/fcntl.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/pagemap.h>
#include <linux/sched.h>
#include <linux/signal.h>
#include <linux/swap.h>
#include <linux/uio.h>
#include <linux/writeback.h>

#include "ukern/mm/mm_internal.h"
#include "ukern/sync/guard.h"

int remove_suid(struct dentry *dentry) {
  const mode_t mode = dentry->d_inode->i_mode;
  unsigned kill = 0;
  if (mode & S_ISUID) kill = ATTR_KILL_SUID;
  // Without a group execute bit the sgid bit means mandatory locking and stays.
  if ((mode & S_ISGID) && (mode & S_IXGRP)) kill |= ATTR_KILL_SGID;
  if (!kill || capable(CAP_FSETID)) return 0;

  struct iattr attrs = {};
  attrs.ia_valid = ATTR_FORCE | kill;
  return notify_change(dentry, &attrs);
}

int generic_write_checks(struct file *file, loff_t *pos, size_t *count, int isblk) {
  struct inode *inode = file->f_mapping->host;
  const unsigned long limit = current->signal->rlim[RLIMIT_FSIZE].rlim_cur;
  if (*pos < 0) return -EINVAL;
  if (isblk) return -EPERM;  // there are no block devices to write to

  if (file->f_flags & O_APPEND) *pos = i_size_read(inode);
  const auto at = static_cast<unsigned long>(*pos);
  if (limit != RLIM_INFINITY) {
    if (at >= limit) {
      send_sig(SIGXFSZ, current, 0);
      return -EFBIG;
    }
    if (*count > limit - at) *count = limit - at;
  }
  if (at + *count > MAX_NON_LFS && !(file->f_flags & O_LARGEFILE)) {
    if (at >= MAX_NON_LFS) {
      send_sig(SIGXFSZ, current, 0);
      return -EFBIG;
    }
    if (*count > MAX_NON_LFS - at) *count = MAX_NON_LFS - at;
  }

  const unsigned long maximum = inode->i_sb->s_maxbytes;
  // An empty write exactly at the largest size is allowed.
  if (at >= maximum && (*count || at > maximum)) {
    send_sig(SIGXFSZ, current, 0);
    return -EFBIG;
  }
  if (at + *count > maximum) *count = maximum - at;
  return 0;
}

namespace {

// A position in a user vector.
struct cursor {
  const struct iovec *iov;
  size_t base;         // inside *iov
  unsigned long left;  // segments, this one included

  char __user *address() const { return static_cast<char *>(iov->iov_base) + base; }
  size_t available() const { return iov->iov_len - base; }
  void advance(size_t bytes) {
    base += bytes;
    while (left > 1 && base >= iov->iov_len) {
      base -= iov->iov_len;
      iov++;
      left--;
    }
  }
};

struct page *grab_page(struct address_space *mapping, unsigned long index) {
  return find_or_create_page(mapping, index, mapping_gfp_mask(mapping));
}

enum class step { done, again, failed };

// Writes the part of one page. *moved is set to the number of bytes written, *status to an error if
// there is one.
step write_one(struct file *file, cursor *from, loff_t pos, size_t bytes, size_t *moved,
               long *status) {
  struct address_space *mapping = file->f_mapping;
  const auto offset = static_cast<unsigned>(pos & (PAGE_CACHE_SIZE - 1));
  const auto to = offset + static_cast<unsigned>(bytes);

  struct page *page = grab_page(mapping, static_cast<unsigned long>(pos >> PAGE_CACHE_SHIFT));
  if (!page) {
    *status = -ENOMEM;
    return step::failed;
  }
  *status = mapping->a_ops->prepare_write(file, page, offset, to);
  if (*status) {
    if (*status != AOP_TRUNCATED_PAGE) unlock_page(page);
    page_cache_release(page);
    if (*status == AOP_TRUNCATED_PAGE) return step::again;
    // Drops blocks that prepare_write allocated behind the end of the file.
    const loff_t size = i_size_read(mapping->host);
    if (pos + static_cast<loff_t>(bytes) > size) vmtruncate(mapping->host, size);
    return step::failed;
  }
  auto *address = static_cast<char *>(kmap(page));
  const size_t copied = bytes - __copy_from_user(address + offset, from->address(), bytes);
  kunmap(page);
  *status = mapping->a_ops->commit_write(file, page, offset, to);
  if (*status == AOP_TRUNCATED_PAGE) {
    page_cache_release(page);
    return step::again;
  }
  if (*status >= 0) {
    // A positive result is the number of bytes committed.
    *moved = *status ? static_cast<size_t>(*status) : copied;
    *status = copied == bytes ? 0 : -EFAULT;
  }
  unlock_page(page);
  mark_page_accessed(page);
  page_cache_release(page);
  return *status < 0 ? step::failed : step::done;
}

}  // namespace

ssize_t generic_file_buffered_write(struct kiocb *iocb, const struct iovec *iov,
                                    unsigned long nr_segs, loff_t pos, loff_t *ppos, size_t count,
                                    ssize_t written) {
  struct file *file = iocb->ki_filp;
  struct address_space *mapping = file->f_mapping;
  struct inode *inode = mapping->host;
  cursor from = {iov, 0, nr_segs};
  from.advance(static_cast<size_t>(written));
  long status = 0;

  while (count) {
    const size_t room = PAGE_CACHE_SIZE - static_cast<size_t>(pos & (PAGE_CACHE_SIZE - 1));
    const size_t bytes = min(min(room, count), from.available());
    size_t moved = 0;
    const step result = write_one(file, &from, pos, bytes, &moved, &status);
    if (result == step::again) continue;
    written += static_cast<ssize_t>(moved);
    count -= moved;
    pos += static_cast<loff_t>(moved);
    from.advance(moved);
    if (result == step::failed) break;
    balance_dirty_pages_ratelimited(mapping);
    cond_resched();
  }
  *ppos = pos;

  if (status >= 0 && ((file->f_flags & O_SYNC) || IS_SYNC(inode))) {
    if (!mapping->a_ops->writepage || !is_sync_kiocb(iocb))
      status = generic_osync_inode(inode, mapping, OSYNC_METADATA | OSYNC_DATA);
  }
  // The rest of a direct write that went through the cache must reach the device too.
  if ((file->f_flags & O_DIRECT) && written) status = filemap_write_and_wait(mapping);
  return written ? written : status;
}

ssize_t generic_file_direct_IO(int rw, struct kiocb *iocb, const struct iovec *iov, loff_t offset,
                               unsigned long nr_segs) {
  struct address_space *mapping = iocb->ki_filp->f_mapping;
  const size_t length = rw == WRITE ? iov_length(iov, nr_segs) : 0;
  if (rw == WRITE && mapping_mapped(mapping))
    unmap_mapping_range(mapping, offset, static_cast<loff_t>(length), 0);

  ssize_t result = filemap_write_and_wait(mapping);
  if (result) return result;
  if (!mapping->a_ops->direct_IO) return -EINVAL;
  result = mapping->a_ops->direct_IO(rw, iocb, iov, offset, nr_segs);
  if (rw == WRITE && mapping_pages(mapping) && length) {
    const auto last =
        static_cast<pgoff_t>((offset + static_cast<loff_t>(length) - 1) >> PAGE_CACHE_SHIFT);
    const int error = invalidate_inode_pages2_range(
        mapping, static_cast<pgoff_t>(offset >> PAGE_CACHE_SHIFT), last);
    if (error) result = error;
  }
  return result;
}

// Cuts a vector to its first `length` bytes. Returns the number of segments left.
static unsigned long shorten(struct iovec *iov, unsigned long nr_segs, size_t length) {
  for (unsigned long seg = 0; seg < nr_segs; seg++) {
    if (iov[seg].iov_len >= length) {
      iov[seg].iov_len = length;
      return seg + 1;
    }
    length -= iov[seg].iov_len;
  }
  return nr_segs;
}

ssize_t generic_file_direct_write(struct kiocb *iocb, const struct iovec *iov,
                                  unsigned long *nr_segs, loff_t pos, loff_t *ppos, size_t count,
                                  size_t ocount) {
  struct file *file = iocb->ki_filp;
  struct inode *inode = file->f_mapping->host;
  if (count != ocount) *nr_segs = shorten(const_cast<struct iovec *>(iov), *nr_segs, count);

  ssize_t written = generic_file_direct_IO(WRITE, iocb, iov, pos, *nr_segs);
  if (written > 0) {
    const loff_t end = pos + written;
    if (end > i_size_read(inode)) {
      i_size_write(inode, end);
      mark_inode_dirty(inode);
    }
    *ppos = end;
  }
  if (written >= 0 && ((file->f_flags & O_SYNC) || IS_SYNC(inode))) {
    const int error = generic_osync_inode(inode, file->f_mapping, OSYNC_METADATA);
    if (error < 0) written = error;
  }
  if (written == static_cast<ssize_t>(count) && !is_sync_kiocb(iocb)) written = -EIOCBQUEUED;
  return written;
}

// Writes with i_mutex held.
static ssize_t write_locked(struct kiocb *iocb, const struct iovec *iov, unsigned long nr_segs,
                            loff_t *ppos) {
  struct file *file = iocb->ki_filp;
  struct inode *inode = file->f_mapping->host;
  const ssize_t total = checked_length(iov, &nr_segs, VERIFY_READ);
  if (total < 0) return total;
  size_t count = static_cast<size_t>(total);
  loff_t pos = *ppos;

  vfs_check_frozen(inode->i_sb, SB_FREEZE_WRITE);
  if (ssize_t error = generic_write_checks(file, &pos, &count, S_ISBLK(inode->i_mode)))
    return error;
  if (count == 0) return 0;
  if (ssize_t error = remove_suid(file->f_dentry)) return error;
  file_update_time(file);

  ssize_t written = 0;
  if (file->f_flags & O_DIRECT) {
    written = generic_file_direct_write(iocb, iov, &nr_segs, pos, ppos, count,
                                        static_cast<size_t>(total));
    if (written < 0 || static_cast<size_t>(written) == count) return written;
    pos += written;
    count -= static_cast<size_t>(written);
  }
  return generic_file_buffered_write(iocb, iov, nr_segs, pos, ppos, count, written);
}

static ssize_t write_with_bdi(struct kiocb *iocb, const struct iovec *iov, unsigned long nr_segs,
                              loff_t *ppos) {
  current->backing_dev_info = iocb->ki_filp->f_mapping->backing_dev_info;
  const ssize_t result = write_locked(iocb, iov, nr_segs, ppos);
  current->backing_dev_info = nullptr;
  return result;
}

static bool is_synchronous(struct file *file) {
  return (file->f_flags & O_SYNC) || IS_SYNC(file->f_mapping->host);
}

ssize_t generic_file_aio_write(struct kiocb *iocb, const char __user *buf, size_t count,
                               loff_t pos) {
  struct file *file = iocb->ki_filp;
  struct inode *inode = file->f_mapping->host;
  const struct iovec iov = {const_cast<char *>(buf), count};
  BUG_ON(iocb->ki_pos != pos);

  ssize_t result;
  {
    MutexGuard guard(inode->i_mutex);
    result = write_with_bdi(iocb, &iov, 1, &iocb->ki_pos);
  }
  if (result <= 0 || !is_synchronous(file)) return result;
  const int error = sync_page_range(inode, file->f_mapping, pos, result);
  return error < 0 ? error : result;
}

ssize_t generic_file_write(struct file *file, const char __user *buf, size_t count, loff_t *ppos) {
  struct inode *inode = file->f_mapping->host;
  const struct iovec iov = {const_cast<char *>(buf), count};
  struct kiocb kiocb;
  init_sync_kiocb(&kiocb, file);

  ssize_t result;
  {
    MutexGuard guard(inode->i_mutex);
    result = write_with_bdi(&kiocb, &iov, 1, ppos);
    if (result == -EIOCBQUEUED) result = wait_on_sync_kiocb(&kiocb);
  }
  if (result <= 0 || !is_synchronous(file)) return result;
  const int error = sync_page_range(inode, file->f_mapping, *ppos - result, result);
  return error < 0 ? error : result;
}
