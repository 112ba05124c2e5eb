/* SPDX-License-Identifier: GPL-2.0 */
/* An open file for cases that run inside the kernel, with kernel buffers. Closed at the end of the
 * scope. */
#ifndef TESTS_UKERN_OPEN_FILE_H
#define TESTS_UKERN_OPEN_FILE_H

#include "tests/ukern/name_calls.h"

class open_file {
 public:
  explicit open_file(const char *path, int flags = O_RDWR | O_CREAT, int mode = 0644)
      : file_(filp_open(path, flags | O_LARGEFILE, mode)) {}
  ~open_file() {
    if (!error()) filp_close(file_, NULL);
  }
  open_file(const open_file &) = delete;
  open_file &operator=(const open_file &) = delete;

  int error() const { return IS_ERR(file_) ? (int)PTR_ERR(file_) : 0; }
  struct file *get() const {
    return file_;
  }
  struct file *operator->() const {
    return file_;
  }
  const struct file_operations *ops() const { return file_->f_op; }
  struct inode *inode() {
    return file_->f_dentry->d_inode;
  }
  struct address_space *mapping() {
    return file_->f_mapping;
  }
  long write(const void *data, size_t len, loff_t pos) {
    kernel_buffers kernel;
    return vfs_write(file_, (const char *)data, len, &pos);
  }
  long read(void *data, size_t len, loff_t pos) {
    kernel_buffers kernel;
    return vfs_read(file_, (char *)data, len, &pos);
  }
  int truncate(loff_t size) { return do_truncate(file_->f_dentry, size, 0, NULL); }

 private:
  struct file *file_;
};

/* One with operations of the case's. */
class file_with {
 public:
  explicit file_with(const struct file_operations *ops) : file_("/f"), own_(file_.get()->f_op) {
    file_.get()->f_op = ops;
  }
  ~file_with() { file_.get()->f_op = own_; }
  file_with(const file_with &) = delete;
  file_with &operator=(const file_with &) = delete;
  struct file *get() {
    return file_.get();
  }

 private:
  open_file file_;
  const struct file_operations *own_;
};

/* `len` bytes that differ with the position and the seed. */
static inline void fill_pattern(char *data, size_t len, unsigned seed) {
  for (size_t i = 0; i < len; i++) data[i] = (char)(i * 7 + i / 251 + seed);
}

#endif
