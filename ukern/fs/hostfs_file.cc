// SPDX-License-Identifier: GPL-2.0
// hostfs: open files. Data moves directly between the caller's buffer and the host. The page cache
// has pages only for mappings and page-by-page readers, and a write drops them.
//
// A file is opened for reading and made writable at the first write. So a file that the host does
// not let us write (a running program, a read-only mount) can be opened for both as long as it is
// not written.
#include "ukern/fs/hostfs_internal.h"
#include "ukern/fs/hostfs.h"

#include <linux/aio.h>
#include <linux/fcntl.h>
#include <linux/mm.h>
#include <linux/mutex.h>
#include <linux/pagemap.h>
#include <linux/slab.h>
#include <linux/uio.h>

#include "ukern/fs/direct_io.h"
#include "ukern/sync/guard.h"

namespace {

constexpr unsigned kDirentBuffer = 32 * 1024;

// The data descriptor of an open file. An idle one may be closed to limit their number, and is
// reopened at the next use: a file stays open here as long as its inode is in memory, which can be
// long.
struct open_file {
  struct list_head idle;  // in idle_files exactly while fd >= 0 and users is 0; idle_lock covers
                          // it, fd and users
  int fd;                 // -1: closed
  unsigned users;
  int writable;    // fd is, or was, open for writing; `lock` covers this, opening and reopening
  int write_only;  // the host permits writing but not reading
  struct mutex lock;
};

DEFINE_SPINLOCK(idle_lock);
LIST_HEAD(idle_files);  // most recently used first
unsigned long nr_idle;
unsigned long idle_limit;

open_file *open_file_of(const struct file *file) {
  return static_cast<open_file *>(file->private_data);
}

int open_data(struct inode *inode, const struct file *file, open_file *open) {
  const hostfs_held held(inode);
  const int path = held.fd();
  if (path < 0) return path;
  if (S_ISDIR(inode->i_mode)) return host_fs_open(path, HOST_OPEN_DIR);
  if (open->write_only) return host_fs_open(path, HOST_OPEN_WRITE);
  const int fd = host_fs_open(path, open->writable ? HOST_OPEN_READ_WRITE : HOST_OPEN_READ);
  if (fd != -EACCES || open->writable || !(file->f_mode & FMODE_WRITE)) return fd;
  const int write_fd = host_fs_open(path, HOST_OPEN_WRITE);
  if (write_fd >= 0) open->writable = open->write_only = 1;
  return write_fd;
}

// Gets the descriptor if it is open, else -1.
int get_open_fd(open_file *open) {
  SpinGuard guard(idle_lock);
  if (open->fd >= 0 && open->users++ == 0) {
    list_del_init(&open->idle);
    nr_idle--;
  }
  return open->fd;
}

// Gets the descriptor, which stays open until put_fd. Or -errno.
int get_fd(struct file *file) {
  open_file *open = open_file_of(file);
  int fd = get_open_fd(open);
  if (fd >= 0) return fd;
  MutexGuard guard(open->lock);
  fd = get_open_fd(open);  // another thread may have opened it meanwhile
  if (fd < 0) {
    fd = open_data(file->f_mapping->host, file, open);
    if (fd >= 0) {
      SpinGuard guard(idle_lock);
      open->fd = fd;
      open->users = 1;
    }
  }
  return fd;
}

void put_fd(struct file *file) {
  open_file *open = open_file_of(file);
  int to_close = -1;
  {
    SpinGuard guard(idle_lock);
    if (--open->users == 0) {
      list_add(&open->idle, &idle_files);
      if (++nr_idle > idle_limit) {
        open_file *oldest = list_entry(idle_files.prev, open_file, idle);
        list_del_init(&oldest->idle);
        nr_idle--;
        to_close = oldest->fd;
        oldest->fd = -1;
      }
    }
  }
  if (to_close >= 0) host_fs_close(to_close);
}

// The path descriptor of an open regular file stays open: the file may lose its last name.
int hold_path(struct inode *inode) {
  if (!S_ISREG(inode->i_mode)) return 0;
  const int fd = hostfs_get_fd(inode, HOSTFS_REOPEN);
  return fd < 0 ? fd : 0;
}

void let_go_of_path(struct inode *inode) {
  if (S_ISREG(inode->i_mode)) hostfs_put_fd(inode);
}

int hostfs_open(struct inode *inode, struct file *file) {
  auto *open = static_cast<open_file *>(kzalloc(sizeof(open_file), GFP_KERNEL));
  if (!open) return -ENOMEM;
  if (const int error = hold_path(inode)) {
    kfree(open);
    return error;
  }
  INIT_LIST_HEAD(&open->idle);
  open->fd = __atomic_exchange_n(&hostfs_i(inode)->created_fd, -1, __ATOMIC_ACQ_REL);
  if (open->fd >= 0) {
    open->users = 1;
    open->writable = 1;
  }
  mutex_init(&open->lock);
  file->private_data = open;
  const int fd = open->fd >= 0 ? open->fd : get_fd(file);
  if (fd < 0) {
    let_go_of_path(inode);
    kfree(open);
    return fd;
  }
  put_fd(file);
  return 0;
}

int hostfs_release(struct inode *inode, struct file *file) {
  open_file *open = open_file_of(file);
  const int fd = get_open_fd(open);  // there is no other user any more
  if (fd >= 0) host_fs_close(fd);
  kfree(open);
  let_go_of_path(inode);
  return 0;
}

// The caller holds `fd` by get_fd.
int make_writable(struct file *file, int fd) {
  open_file *open = open_file_of(file);
  if (__atomic_load_n(&open->writable, __ATOMIC_ACQUIRE)) return 0;
  int error = 0;
  MutexGuard guard(open->lock);
  if (!open->writable) {
    const hostfs_held held(file->f_mapping->host);
    error = held.fd() < 0 ? held.fd() : host_fs_make_writable(held.fd(), fd);
    if (!error) __atomic_store_n(&open->writable, 1, __ATOMIC_RELEASE);
  }
  return error;
}

ssize_t hostfs_read(struct file *file, char __user *buf, size_t count, loff_t *ppos) {
  const int fd = get_fd(file);
  if (fd < 0) return fd;
  const auto pos = static_cast<unsigned long long>(*ppos);
  const ssize_t result =
      open_file_of(file)->write_only ? -EACCES : host_fs_pread(fd, buf, count, pos);
  put_fd(file);
  if (result > 0) *ppos += result;
  return result;
}

// Reads synchronously: no request is ever queued.
ssize_t hostfs_aio_read(struct kiocb *iocb, char __user *buf, size_t count, loff_t pos) {
  BUG_ON(iocb->ki_pos != pos);
  return hostfs_read(iocb->ki_filp, buf, count, &iocb->ki_pos);
}

void drop_cached(struct inode *inode, loff_t pos, ssize_t count) {
  if (!__atomic_load_n(&inode->i_mapping->nrpages, __ATOMIC_RELAXED)) return;
  invalidate_mapping_pages(inode->i_mapping, static_cast<pgoff_t>(pos >> PAGE_CACHE_SHIFT),
                           static_cast<pgoff_t>((pos + count - 1) >> PAGE_CACHE_SHIFT));
}

// Writes with i_mutex held. *ppos advances past the data written.
ssize_t write_locked(struct file *file, int fd, const char __user *buf, size_t count,
                     loff_t *ppos) {
  struct inode *inode = file->f_mapping->host;
  const bool append = file->f_flags & O_APPEND;
  if (append) hostfs_refresh(inode);
  loff_t pos = *ppos;
  if (ssize_t error = generic_write_checks(file, &pos, &count, 0)) return error;
  if (!count) return 0;
  if (ssize_t error = make_writable(file, fd)) return error;

  const host_identity as = hostfs_caller();
  auto end = static_cast<unsigned long long>(pos);
  ssize_t written;
  do {
    written = append ? host_fs_append(&as, fd, buf, count, &end)
                     : host_fs_pwrite(&as, fd, buf, count, end);
  } while ((written == -ENOSPC || written == -EDQUOT) && hostfs_wait_for_room());
  if (written == -EFBIG) current->file_too_large = true;
  if (written <= 0) return written;
  if (!append) end += static_cast<unsigned long long>(written);
  *ppos = static_cast<loff_t>(end);
  drop_cached(inode, *ppos - written, written);
  // The next refresh updates the other attributes. Size and times are updated now, for layers that
  // copy them before.
  SpinGuard guard(inode->i_lock);
  if (*ppos > i_size_read(inode)) i_size_write(inode, *ppos);
  inode->i_mtime = inode->i_ctime = current_fs_time(inode->i_sb);
  return written;
}

ssize_t hostfs_write(struct file *file, const char __user *buf, size_t count, loff_t *ppos) {
  struct inode *inode = file->f_mapping->host;
  const int fd = get_fd(file);
  if (fd < 0) return fd;
  ssize_t result;
  {
    MutexGuard guard(inode->i_mutex);
    vfs_check_frozen(inode->i_sb, SB_FREEZE_WRITE);
    result = write_locked(file, fd, buf, count, ppos);
  }
  if (result > 0 && ((file->f_flags & O_SYNC) || IS_SYNC(inode))) {
    const int error = host_fs_sync(fd, 0);
    if (error) result = error;
  }
  put_fd(file);
  return result;
}

int hostfs_fsync(struct file *file, struct dentry *, int datasync) {
  const int fd = get_fd(file);
  if (fd < 0) return fd;
  const int error = host_fs_sync(fd, datasync);
  put_fd(file);
  return error;
}

loff_t hostfs_llseek(struct file *file, loff_t offset, int origin) {
  if (origin == SEEK_END) {
    if (int error = hostfs_refresh(file->f_mapping->host)) return error;
  }
  return generic_file_llseek(file, offset, origin);
}

// A writable shared mapping would have data that the host does not see.
int hostfs_mmap(struct file *file, struct vm_area_struct *vma) {
  if ((vma->vm_flags & VM_SHARED) && (vma->vm_flags & VM_MAYWRITE)) return -EINVAL;
  return generic_file_mmap(file, vma);
}

ssize_t hostfs_sendfile(struct file *file, loff_t *ppos, size_t count, read_actor_t actor,
                        void *target) {
  struct inode *inode = file->f_mapping->host;
  if (int error = hostfs_refresh(inode)) return error;
  invalidate_inode_pages(inode->i_mapping);
  return generic_file_sendfile(file, ppos, count, actor, target);
}

int hostfs_readpage(struct file *file, struct page *page) {
  const hostfs_held held(page->mapping->host);
  const int fd = file ? get_fd(file) : host_fs_open(held.fd(), HOST_OPEN_READ);
  auto *data = static_cast<char *>(kmap(page));
  const auto pos = static_cast<unsigned long long>(page_offset(page));
  const long result = fd < 0 ? fd : host_fs_pread(fd, data, PAGE_CACHE_SIZE, pos);
  if (result >= 0) {
    memset(data + result, 0, PAGE_CACHE_SIZE - static_cast<unsigned long>(result));
    SetPageUptodate(page);
  } else {
    SetPageError(page);
  }
  kunmap(page);
  if (fd >= 0 && file) put_fd(file);
  if (fd >= 0 && !file) host_fs_close(fd);
  unlock_page(page);
  return result < 0 ? static_cast<int>(result) : 0;
}

ssize_t direct_segments(int rw, int fd, const struct iovec *iov, loff_t offset,
                        unsigned long nr_segs) {
  const host_identity as = hostfs_caller();
  ssize_t done = 0;
  for (unsigned long seg = 0; seg < nr_segs; seg++) {
    const auto pos = static_cast<unsigned long long>(offset + done);
    const ssize_t part = rw == WRITE
                             ? host_fs_pwrite(&as, fd, iov[seg].iov_base, iov[seg].iov_len, pos)
                             : host_fs_pread(fd, iov[seg].iov_base, iov[seg].iov_len, pos);
    if (part < 0) return done ? done : part;
    done += part;
    if (static_cast<size_t>(part) < iov[seg].iov_len) break;
  }
  return done;
}

ssize_t hostfs_direct_IO(int rw, struct kiocb *iocb, const struct iovec *iov, loff_t offset,
                         unsigned long nr_segs) {
  struct file *file = iocb->ki_filp;
  const int fd = get_fd(file);
  if (fd < 0) return fd;
  ssize_t result = rw == WRITE ? make_writable(file, fd) : 0;
  if (!result) result = direct_segments(rw, fd, iov, offset, nr_segs);
  put_fd(file);
  return direct_io_result(rw, iocb, result, iov_length(iov, nr_segs));
}

// Passes the entries of one buffer to filldir. 1: it has no more room.
int emit(struct file *file, const char *buffer, long bytes, void *dirent, filldir_t filldir) {
  for (long at = 0; at < bytes;) {
    const auto *entry = reinterpret_cast<const struct host_dirent *>(buffer + at);
    const int length = static_cast<int>(strlen(entry->name));
    if (filldir(dirent, entry->name, length, file->f_pos, entry->ino, entry->type) < 0) return 1;
    file->f_pos = entry->next;
    at += entry->length;
  }
  return 0;
}

int hostfs_readdir(struct file *file, void *dirent, filldir_t filldir) {
  const int fd = get_fd(file);
  if (fd < 0) return fd;
  auto *buffer = static_cast<char *>(kmalloc(kDirentBuffer, GFP_KERNEL));
  long bytes = -ENOMEM;
  if (buffer) {
    do {
      bytes =
          host_fs_getdents(fd, static_cast<unsigned long long>(file->f_pos), buffer, kDirentBuffer);
    } while (bytes > 0 && !emit(file, buffer, bytes, dirent, filldir));
  }
  kfree(buffer);
  put_fd(file);
  return bytes < 0 ? static_cast<int>(bytes) : 0;
}

}  // namespace

void hostfs_set_idle_files(unsigned long limit) {
  SpinGuard guard(idle_lock);
  idle_limit = limit;
}

const struct address_space_operations hostfs_aops = {
    .readpage = hostfs_readpage,
    .direct_IO = hostfs_direct_IO,
};

const struct file_operations hostfs_file_fops = {
    .llseek = hostfs_llseek,
    .read = hostfs_read,
    .aio_read = hostfs_aio_read,
    .write = hostfs_write,
    .mmap = hostfs_mmap,
    .open = hostfs_open,
    .release = hostfs_release,
    .fsync = hostfs_fsync,
    .sendfile = hostfs_sendfile,
};

const struct file_operations hostfs_dir_fops = {
    .read = generic_read_dir,
    .readdir = hostfs_readdir,
    .open = hostfs_open,
    .release = hostfs_release,
    .fsync = hostfs_fsync,
};
