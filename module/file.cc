// SPDX-License-Identifier: GPL-2.0
// The file operations. All opens of an inode share one lower file. Reads and writes go through the
// layer's page cache, every successful write is captured, and most other calls are passed down.

#include "tarn.h"
#include "ox_guard.h"
#include "trans.h"

namespace {

typedef ox_owner<struct dentry, dput> dentry_ref;

// The largest write; a longer request becomes a short write.
constexpr size_t max_write_bytes = 50UL * 1024 * 1024;

constexpr unsigned long nfs_magic = 0x6969;

// Opens the shared lower file if no other call has. It is opened read-write whatever the caller
// asked for, because later opens of the inode may need more.
int open_lower_file(struct tarn_inode_info *info, struct dentry *dentry) {
  if (__atomic_load_n(&info->lower_file, __ATOMIC_ACQUIRE)) return 0;

  struct dentry *lower_dentry = tarn_lower_dentry(dentry);
  BUG_ON(!atomic_read(&lower_dentry->d_count));
  // dentry_open consumes both references, even on failure.
  struct file *lower_file =
      dentry_open(dget(lower_dentry), mntget(tarn_lower_mnt(dentry)), O_RDWR | O_LARGEFILE);
  if (IS_ERR(lower_file)) return static_cast<int>(PTR_ERR(lower_file));
  {
    mutex_guard guard(info->lower_file_mutex);
    if (!info->lower_file) {
      __atomic_store_n(&info->lower_file, lower_file, __ATOMIC_RELEASE);
      return 0;
    }
  }
  fput(lower_file);  // another open was first
  return 0;
}

int tarn_open(struct inode *inode, struct file *file) {
  auto *file_info =
      static_cast<struct tarn_file_info *>(kmem_cache_alloc(tarn_file_info_cache, GFP_KERNEL));
  if (!file_info) return -ENOMEM;
  file->private_data = file_info;

  const int rc = open_lower_file(tarn_inode(inode), file->f_dentry);
  if (rc) {
    file->private_data = nullptr;
    kmem_cache_free(tarn_file_info_cache, file_info);
    return rc;
  }
  file_info->lower_file = __atomic_load_n(&tarn_inode(inode)->lower_file, __ATOMIC_ACQUIRE);
  file_info->private_ = nullptr;
  return 0;
}

// The lower file stays open with the inode.
int tarn_release(struct inode *, struct file *file) {
  kmem_cache_free(tarn_file_info_cache, tarn_file(file));
  return 0;
}

int tarn_flush(struct file *file, fl_owner_t id) {
  struct file *lower_file = tarn_lower_file(file);
  if (!lower_file->f_op || !lower_file->f_op->flush) return 0;
  return lower_file->f_op->flush(lower_file, id);
}

int tarn_fasync(int fd, struct file *file, int on) {
  struct file *lower_file = tarn_lower_file(file);
  if (!lower_file->f_op || !lower_file->f_op->fasync) return 0;
  return lower_file->f_op->fasync(fd, lower_file, on);
}

int tarn_ioctl(struct inode *inode, struct file *file, unsigned int cmd, unsigned long arg) {
  struct file *lower_file = tarn_file(file) ? tarn_lower_file(file) : nullptr;
  if (!lower_file || !lower_file->f_op || !lower_file->f_op->ioctl) return -ENOTTY;
  return lower_file->f_op->ioctl(tarn_lower_inode(inode), lower_file, cmd, arg);
}

int tarn_fsync(struct file *file, struct dentry *dentry, int datasync) {
  struct dentry *lower_dentry = tarn_lower_dentry(dentry);
  struct inode *lower_inode = lower_dentry->d_inode;
  if (!lower_inode->i_fop || !lower_inode->i_fop->fsync) return -EINVAL;
  mutex_guard guard(lower_inode->i_mutex);
  return lower_inode->i_fop->fsync(tarn_lower_file(file), lower_dentry, datasync);
}

// All opens of the inode share the lower file, so another open may have moved its position. The
// lower file system may have more state of the position than f_pos, NFS a cookie of the server:
// llseek resets it.
void move_lower_file(struct file *lower_file, loff_t pos) {
  if (lower_file->f_pos != pos) vfs_llseek(lower_file, pos, SEEK_SET);
  lower_file->f_pos = pos;  // even if llseek is missing or fails
}

int tarn_readdir(struct file *file, void *dirent, filldir_t filldir) {
  struct file *lower_file = tarn_lower_file(file);
  move_lower_file(lower_file, file->f_pos);
  const int rc = vfs_readdir(lower_file, filldir, dirent);
  file->f_pos = lower_file->f_pos;
  if (rc < 0) return rc;
  struct inode *inode = file->f_dentry->d_inode;
  inode->i_atime = tarn_lower_inode(inode)->i_atime;
  return rc;
}

// NFS must see each read, because other clients change its files behind our cache.
bool reads_go_below(const struct file *lower_file, const struct inode *lower_inode) {
  return lower_file && lower_file->f_op && lower_file->f_op->aio_read &&
         lower_inode->i_sb->s_magic == nfs_magic;
}

ssize_t tarn_aio_read(struct kiocb *iocb, char __user *buf, size_t count, loff_t pos) {
  struct file *file = iocb->ki_filp;
  file->f_flags &= ~O_DIRECT;

  struct dentry *dentry = file->f_dentry;
  struct file *lower_file = tarn_lower_file(file);
  ssize_t rc;
  if (reads_go_below(lower_file, tarn_lower_inode(dentry->d_inode))) {
    iocb->ki_filp = lower_file;
    rc = lower_file->f_op->aio_read(iocb, buf, count, pos);
    iocb->ki_filp = file;
  } else {
    rc = generic_file_aio_read(iocb, buf, count, pos);
  }
  if (rc == -EIOCBQUEUED) rc = wait_on_sync_kiocb(iocb);
  if (rc >= 0) touch_atime(tarn_lower_mnt(dentry), tarn_lower_dentry(dentry));
  return rc;
}

// Writes by the generic functions. Returns the bytes written, or the error if there are none.
ssize_t write_generic(struct kiocb *iocb, const struct iovec *iov, loff_t pos) {
  struct file *file = iocb->ki_filp;
  struct address_space *mapping = file->f_mapping;
  size_t count = iov->iov_len;
  const size_t asked = count;

  current->backing_dev_info = mapping->backing_dev_info;
  ssize_t written = 0;
  const int rc = generic_write_checks(file, &pos, &count, S_ISBLK(mapping->host->i_mode));
  if (!rc && count) {
    file_update_time(file);
    bool direct_is_all = false;
    if (file->f_flags & O_DIRECT) {
      unsigned long segments = 1;
      written = generic_file_direct_write(iocb, iov, &segments, pos, &iocb->ki_pos, count, asked);
      direct_is_all = written < 0 || static_cast<size_t>(written) == count;
      if (!direct_is_all) {
        pos += written;
        count -= written;
      }
    }
    if (!direct_is_all) {
      written = generic_file_buffered_write(iocb, iov, 1, pos, &iocb->ki_pos, count, written);
    }
  }
  current->backing_dev_info = nullptr;
  return written ? written : rc;
}

// A failed write has still grown the upper inode. Truncates it, so that programs see no size and no
// bytes that the lower file does not have.
void take_lower_size(struct inode *inode) {
  const loff_t size = i_size_read(tarn_lower_inode(inode));
  if (i_size_read(inode) > size) vmtruncate(inode, size);
}

// A write by another user clears set-id bits of the lower file. Captures that before the data, so
// that a replica never has the data under the bits.
void capture_lost_bits(struct dentry *dentry, umode_t before) {
  if (!(before & (S_ISUID | S_ISGID))) return;
  struct kstat stat;
  if (vfs_getattr(tarn_lower_mnt(dentry), tarn_lower_dentry(dentry), &stat)) return;
  dentry->d_inode->i_mode = tarn_lower_inode(dentry->d_inode)->i_mode;
  tarn_mode_sync(dentry, before);
}

// Writes and captures under the inode's i_mutex, so that the records of one file are in the order
// of its writes.
ssize_t write_and_capture(struct kiocb *iocb, const struct iovec *iov, loff_t pos) {
  struct file *file = iocb->ki_filp;
  struct inode *inode = file->f_mapping->host;
  mutex_guard guard(inode->i_mutex);

  // One segment of at most max_write_bytes cannot overflow.
  static_assert(max_write_bytes <= LONG_MAX);
  if (!access_ok(VERIFY_READ, iov->iov_base, iov->iov_len)) return -EFAULT;
  vfs_check_frozen(inode->i_sb, SB_FREEZE_WRITE);

  struct dentry *dentry = file->f_dentry;
  struct tarn_inode_info *info = tarn_inode(inode);
  const umode_t mode = info->lower_inode->i_mode;
  info->cut_at = TARN_NOT_CUT;
  const ssize_t written = write_generic(iocb, iov, pos);
  if (info->cut_at != TARN_NOT_CUT || written < 0) take_lower_size(inode);
  // With O_APPEND the write was not at `pos`.
  const loff_t start = iocb->ki_pos - written;
  ssize_t kept = written;
  if (written > 0 && info->cut_at != TARN_NOT_CUT) kept = info->cut_at - start;
  if (kept > 0) {
    dentry_ref name(tarn_hold_name(dentry));
    capture_lost_bits(dentry, mode);
    // Capture never changes the write's result.
    tarn_write_sync(dentry, static_cast<const char __user *>(iov->iov_base), kept, start);
  }
  return written;
}

ssize_t tarn_file_aio_write(struct kiocb *iocb, const char __user *buf, size_t count, loff_t pos) {
  struct file *file = iocb->ki_filp;
  struct address_space *mapping = file->f_mapping;
  struct inode *inode = mapping->host;
  struct iovec iov = {.iov_base = const_cast<char __user *>(buf),
                      .iov_len = min(count, max_write_bytes)};
  BUG_ON(iocb->ki_pos != pos);
  file->f_flags &= ~O_DIRECT;

  const ssize_t written = write_and_capture(iocb, &iov, pos);
  if (written > 0 && ((file->f_flags & O_SYNC) || IS_SYNC(inode))) {
    const ssize_t rc = sync_page_range(inode, mapping, pos, written);
    if (rc < 0) return rc;
  }
  return written;
}

}  // namespace

const struct file_operations tarn_main_fops = {
    .llseek = generic_file_llseek,
    .read = do_sync_read,
    .aio_read = tarn_aio_read,
    .write = do_sync_write,
    .aio_write = tarn_file_aio_write,
    .readdir = tarn_readdir,
    .ioctl = tarn_ioctl,
    .mmap = generic_file_mmap,
    .open = tarn_open,
    .flush = tarn_flush,
    .release = tarn_release,
    .fsync = tarn_fsync,
    .fasync = tarn_fasync,
    .sendfile = generic_file_sendfile,
};

const struct file_operations tarn_dir_fops = {
    .readdir = tarn_readdir,
    .ioctl = tarn_ioctl,
    .mmap = generic_file_mmap,
    .open = tarn_open,
    .flush = tarn_flush,
    .release = tarn_release,
    .fsync = tarn_fsync,
    .fasync = tarn_fasync,
};
