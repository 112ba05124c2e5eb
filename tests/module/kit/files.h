/* SPDX-License-Identifier: GPL-2.0 */
/* Open files of programs, and what files hold. */
#ifndef TESTS_MODULE_KIT_FILES_H
#define TESTS_MODULE_KIT_FILES_H

#include "tests/module/kit/paths.h"

/* An open file; empty when the open failed. With O_CREAT it is made with mode 0644. */
class test_file {
 public:
  test_file(const char *path, int flags) : flags_(flags) {
    if (flags & O_CREAT) {
      const test_path at(path);
      const test_node dir(at.dir);
      struct uk_stat stat;
      error_ = dir.get() ? uk_create(dir.get(), at.name, flags, 0644, &node_, &file_, &stat)
                         : dir.error();
    } else {
      error_ = uk_node_at(path, &node_);
      if (!error_) error_ = uk_open(node_, flags, &file_);
    }
  }
  ~test_file() { close(); }
  test_file(const test_file &) = delete;
  test_file &operator=(const test_file &) = delete;
  void close() {
    if (file_) {
      uk_flush(file_);
      uk_release(file_);
    }
    file_ = nullptr;
    if (node_) uk_node_put(node_, 1);
    node_ = nullptr;
  }
  struct uk_file *get() const {
    return file_;
  }
  struct uk_node *node() const {
    return node_;
  }
  int error() const { return error_; }
  long write(const void *data, unsigned long size, unsigned long long pos) {
    return uk_write(file_, data, size, pos, flags_);
  }
  long read(void *data, unsigned long size, unsigned long long pos) {
    return uk_read(file_, data, size, pos);
  }

 private:
  struct uk_node *node_ = nullptr;
  struct uk_file *file_ = nullptr;
  int flags_;
  int error_;
};

/* Makes or overwrites a file. The bytes written, or the error. */
inline long test_put(const char *path, const char *text) {
  test_file file(path, O_CREAT | O_WRONLY);
  return file.get() ? file.write(text, strlen(text), 0) : file.error();
}

/* What a file holds, at most `size` bytes, ended with a NUL. The length, or the error. */
inline long test_get(const char *path, char *text, unsigned long size) {
  test_file file(path, O_RDONLY);
  if (!file.get()) return file.error();
  const long length = file.read(text, size - 1, 0);
  if (length >= 0) text[length] = 0;
  return length;
}

inline bool test_holds(const char *path, const char *text) {
  char held[256];
  return test_get(path, held, sizeof(held)) >= 0 && !strcmp(held, text);
}

#endif
