/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TESTS_MODULE_KERNEL_FILE_H
#define TESTS_MODULE_KERNEL_FILE_H

#include "tests/module/mounted.h"

/* An open file of the kernel's own, for calls that the system-call level never makes. */
class kernel_file {
 public:
  kernel_file(const char *path, int flags) : file_(filp_open(path, flags, 0)) {}
  ~kernel_file() {
    if (!IS_ERR(file_)) filp_close(file_, nullptr);
  }
  kernel_file(const kernel_file &) = delete;
  kernel_file &operator=(const kernel_file &) = delete;
  struct file *get() const {
    return file_;
  }
  struct file *operator->() const {
    return file_;
  }
  const struct file_operations *ops() const { return file_->f_op; }

 private:
  struct file *file_;
};

#endif
