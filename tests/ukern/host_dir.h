/* SPDX-License-Identifier: GPL-2.0 */
/* A directory of the host for cases in the process, and what the host does in it behind the back of
 * the kernel. */
#ifndef TESTS_UKERN_HOST_DIR_H
#define TESTS_UKERN_HOST_DIR_H

#include "tests/harness/case.h"
#include "tests/ukern/name_calls.h"
#include "ukern/host/host.h"
#include "ukern/host/host_fs.h"
#include "ukern/door/uk_fs.h"

// A fresh directory of the host, mounted at a place of the name space (null: there is none at all);
// emptied and removed at the end.
class host_dir {
 public:
  explicit host_dir(const char *at = "/h") : at_(at) {
    if (!at) return;
    snprintf(path_, sizeof(path_), "/tmp/hostfs-test-%llx", (unsigned long long)host_wall_ns());
    tmp_ = host_fs_root("/tmp");
    error_ = tmp_ < 0 ? tmp_ : host_fs_mkdir(NULL, tmp_, path_ + 5, 0755);
    if (error_) return;
    fd_ = host_fs_root(path_);
    error_ = name_mkdir(at_, 0755);
    if (!error_) error_ = uk_fs_mount(path_, at_, "hostfs", 0, NULL);
    mounted_ = !error_;
  }
  ~host_dir() {
    if (mounted_) EXPECT_EQ(uk_fs_umount(at_, 0), 0);
    if (fd_ >= 0) {
      empty(fd_);
      host_fs_close(fd_);
      EXPECT_EQ(host_fs_rmdir(NULL, tmp_, path_ + 5), 0);
    }
    if (tmp_ >= 0) host_fs_close(tmp_);
  }
  host_dir(const host_dir &) = delete;
  host_dir &operator=(const host_dir &) = delete;

  int error() const { return error_; }
  int fd() const { return fd_; }
  const char *path() const { return path_; }

  // The host's own view of a name in the directory.
  int stat(const char *name, struct uk_stat *out) {
    return host_fs_stat_name(NULL, fd_, name, out);
  }
  // Behind the file system's back: a file with this content, in the directory or in one below it.
  int put(const char *name, const char *text) { return put_in(fd_, name, text); }
  int put(const char *dir, const char *name, const char *text) {
    const int inner = host_fs_lookup(NULL, fd_, dir);
    if (inner < 0) return inner;
    const int error = put_in(inner, name, text);
    host_fs_close(inner);
    return error;
  }
  int mkdir(const char *name) { return host_fs_mkdir(NULL, fd_, name, 0755); }
  int rmdir(const char *name) { return host_fs_rmdir(NULL, fd_, name); }
  int rename(const char *from, const char *to) { return host_fs_rename(NULL, fd_, from, fd_, to); }

 private:
  static int put_in(int dir, const char *name, const char *text) {
    const int path_fd = host_fs_create(NULL, dir, name, 0644, NULL);
    if (path_fd < 0) return path_fd;
    const int data = host_fs_open(path_fd, HOST_OPEN_WRITE);
    const long n = data < 0 ? data : host_fs_pwrite(NULL, data, text, strlen(text), 0);
    if (data >= 0) host_fs_close(data);
    host_fs_close(path_fd);
    return n < 0 ? (int)n : 0;
  }
  // Removes all that a directory holds; `dir` is a path descriptor of it.
  static void empty(int dir) {
    const int data = host_fs_open(dir, HOST_OPEN_DIR);
    char *entries = (char *)__get_free_page(GFP_KERNEL);
    for (;;) {
      const long bytes = host_fs_getdents(data, 0, entries, PAGE_SIZE);
      int removed = 0;
      for (long at = 0; at < bytes;) {
        const struct host_dirent *entry = (const struct host_dirent *)(entries + at);
        at += entry->length;
        if (strcmp(entry->name, ".") && strcmp(entry->name, ".."))
          removed |= remove(dir, entry->name);
      }
      if (!removed) break;
    }
    free_page((unsigned long)entries);
    host_fs_close(data);
  }
  static int remove(int dir, const char *name) {
    if (!host_fs_unlink(NULL, dir, name)) return 1;
    const int inner = host_fs_lookup(NULL, dir, name);
    if (inner < 0) return 0;
    empty(inner);
    host_fs_close(inner);
    return !host_fs_rmdir(NULL, dir, name);
  }

  const char *at_;
  char path_[64];
  int tmp_ = -1, fd_ = -1;
  int error_ = 0;
  int mounted_ = 0;
};

#endif
