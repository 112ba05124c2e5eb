/* SPDX-License-Identifier: GPL-2.0 */
/*
 * For the cases of the stackable layer: a mount of the module at /mnt over /lower, what a program
 * does by path, the daemon's end of the channel, and rules. Everything acts as the current task;
 * owners undo themselves at the end of their scope, so that a case leaves nothing mounted.
 */
#ifndef TESTS_MODULE_MOUNTED_H
#define TESTS_MODULE_MOUNTED_H

#include "kernel.h"
#include "ox_guard.h"
#include "ox_msg.h"
#include "base64.h"
#include "dir.h"
#include "rule.h"
#include "tarn.h"
#include "trans.h"
#include "tests/harness/case.h"
#include "ukern/door/uk_core.h"
#include "ukern/door/uk_fs.h"
#include "ukern/door/uk_net.h"
#include "ukern/testing/uk_fault.h"

/* ---- paths ---- */

/* The directory part and the last component of an absolute path. */
struct test_path {
  char dir[512];
  const char *name;

  explicit test_path(const char *path) {
    const char *slash = strrchr(path, '/');
    const size_t length = slash == path ? 1 : static_cast<size_t>(slash - path);
    memcpy(dir, path, length);
    dir[length] = 0;
    name = slash + 1;
  }
};

/* A node by path, links followed; empty when there is none. */
class test_node {
 public:
  explicit test_node(const char *path) { error_ = uk_node_at(path, &node_); }
  ~test_node() {
    if (node_) uk_node_put(node_, 1);
  }
  test_node(const test_node &) = delete;
  test_node &operator=(const test_node &) = delete;
  struct uk_node *get() const {
    return node_;
  }
  int error() const { return error_; }

 private:
  struct uk_node *node_ = nullptr;
  int error_;
};

/* The node of a name itself, a link not followed. */
class test_name {
 public:
  explicit test_name(const char *path) {
    const test_path at(path);
    const test_node dir(at.dir);
    error_ = dir.get() ? uk_lookup(dir.get(), at.name, &node_, &stat_) : dir.error();
  }
  ~test_name() {
    if (node_) uk_node_put(node_, 1);
  }
  test_name(const test_name &) = delete;
  test_name &operator=(const test_name &) = delete;
  struct uk_node *get() const {
    return node_;
  }
  const struct uk_stat &stat() const { return stat_; }
  int error() const { return error_; }

 private:
  struct uk_node *node_ = nullptr;
  struct uk_stat stat_ = {};
  int error_;
};

/* The dentry and mount at a path inside the kernel. */
class test_walk {
 public:
  explicit test_walk(const char *path, unsigned flags = 0) {
    memset(&nd_, 0, sizeof(nd_));
    error_ = path_lookup(path, flags, &nd_);
  }
  ~test_walk() { drop(); }
  test_walk(const test_walk &) = delete;
  test_walk &operator=(const test_walk &) = delete;
  void drop() {
    if (!error_) path_release(&nd_);
    error_ = -ENOENT;
  }
  int error() const { return error_; }
  struct dentry *dentry() const {
    return nd_.dentry;
  }
  struct inode *inode() const {
    return nd_.dentry->d_inode;
  }
  struct vfsmount *mnt() const {
    return nd_.mnt;
  }

 private:
  struct nameidata nd_;
  int error_;
};

inline int test_mkdir(const char *path, unsigned mode = 0755) {
  const test_path at(path);
  const test_node dir(at.dir);
  if (!dir.get()) return dir.error();
  struct uk_node *node = nullptr;
  struct uk_stat stat;
  const int rc = uk_mkdir(dir.get(), at.name, mode, &node, &stat);
  if (!rc) uk_node_put(node, 1);
  return rc;
}

inline int test_mknod(const char *path, unsigned mode, unsigned rdev) {
  const test_path at(path);
  const test_node dir(at.dir);
  if (!dir.get()) return dir.error();
  struct uk_node *node = nullptr;
  struct uk_stat stat;
  const int rc = uk_mknod(dir.get(), at.name, mode, rdev, &node, &stat);
  if (!rc) uk_node_put(node, 1);
  return rc;
}

inline int test_symlink(const char *target, const char *path) {
  const test_path at(path);
  const test_node dir(at.dir);
  if (!dir.get()) return dir.error();
  struct uk_node *node = nullptr;
  struct uk_stat stat;
  const int rc = uk_symlink(dir.get(), at.name, target, &node, &stat);
  if (!rc) uk_node_put(node, 1);
  return rc;
}

inline int test_link(const char *from, const char *to) {
  const test_node old(from);
  const test_path at(to);
  const test_node dir(at.dir);
  if (!old.get()) return old.error();
  if (!dir.get()) return dir.error();
  struct uk_node *node = nullptr;
  struct uk_stat stat;
  const int rc = uk_link(old.get(), dir.get(), at.name, &node, &stat);
  if (!rc) uk_node_put(node, 1);
  return rc;
}

inline int test_unlink(const char *path) {
  const test_path at(path);
  const test_node dir(at.dir);
  return dir.get() ? uk_unlink(dir.get(), at.name) : dir.error();
}

inline int test_rmdir(const char *path) {
  const test_path at(path);
  const test_node dir(at.dir);
  return dir.get() ? uk_rmdir(dir.get(), at.name) : dir.error();
}

inline int test_rename(const char *from, const char *to) {
  const test_path old_at(from);
  const test_path new_at(to);
  const test_node old_dir(old_at.dir);
  const test_node new_dir(new_at.dir);
  if (!old_dir.get()) return old_dir.error();
  if (!new_dir.get()) return new_dir.error();
  return uk_rename(old_dir.get(), old_at.name, new_dir.get(), new_at.name);
}

inline int test_stat(const char *path, struct uk_stat *stat) {
  const test_name at(path);
  if (!at.get()) return at.error();
  return uk_getattr(at.get(), nullptr, stat);
}

inline bool test_exists(const char *path) {
  return test_name(path).error() == 0;
}

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

/* How many slots of an operation table are filled. */
template <typename Table>
int test_filled_slots(const Table &table) {
  const auto *slots = reinterpret_cast<const void *const *>(&table);
  int filled = 0;
  for (unsigned long i = 0; i < sizeof(Table) / sizeof(*slots); i++) filled += slots[i] != nullptr;
  return filled;
}

/* Memory of a case, given back at its end. */
class test_buffer {
 public:
  explicit test_buffer(unsigned long size, int value = 0)
      : order_(get_order(size)),
        data_(reinterpret_cast<char *>(__get_free_pages(GFP_KERNEL, order_))) {
    memset(data_, value, size);
  }
  ~test_buffer() { free_pages(reinterpret_cast<unsigned long>(data_), order_); }
  test_buffer(const test_buffer &) = delete;
  test_buffer &operator=(const test_buffer &) = delete;
  char *get() const { return data_; }
  char &operator[](unsigned long i) const { return data_[i]; }

 private:
  static unsigned get_order(unsigned long size) {
    unsigned order = 0;
    while ((PAGE_SIZE << order) < size) order++;
    return order;
  }
  unsigned order_;
  char *data_;
};

/* ---- the mount ---- */

/* /mnt over /lower, which is a file system of its own: the type given, or a memfs. */
class test_mount {
 public:
  explicit test_mount(const char *lower_options = nullptr) {
    test_mkdir("/lower");
    test_mkdir("/mnt");
    lower_error_ = uk_fs_mount("none", "/lower", "memfs", 0, lower_options);
    error_ = lower_error_ ? lower_error_ : uk_fs_mount("/lower", "/mnt", "tarn", 0, nullptr);
    EXPECT_EQ(error_, 0);
  }
  ~test_mount() {
    if (!error_) EXPECT_EQ(uk_fs_umount("/mnt", 0), 0);
    if (!lower_error_) EXPECT_EQ(uk_fs_umount("/lower", 0), 0);
  }
  test_mount(const test_mount &) = delete;
  test_mount &operator=(const test_mount &) = delete;

 private:
  int lower_error_;
  int error_;
};

/* ---- rules, directories and the daemon ---- */

/* A rule for one directory of the lower name space. Its UUID is sixteen times `id`. */
inline int test_add_rule(char id, const char *directory) {
  test_buffer memory(sizeof(struct prule));
  auto *rule = reinterpret_cast<struct prule *>(memory.get());
  memset(rule->uuid, id, sizeof(rule->uuid));
  ox_s32_t size = OX_WORKDIR_LEN - 1;
  if (!Base64Encode(directory, static_cast<ox_s32_t>(strlen(directory)), rule->workdir, &size, 0))
    return -EINVAL;
  kernel_ds_guard kernel_ds;
  return do_add(reinterpret_cast<const void __user *>(rule), sizeof(*rule));
}

inline int test_add_directory(char id, const char *directory) {
  struct dir dir;
  memset(&dir, 0, sizeof(dir));
  memset(dir.uuid, id, sizeof(dir.uuid));
  strncpy(dir.repdir, directory, sizeof(dir.repdir) - 1);
  kernel_ds_guard kernel_ds;
  return dir_add(reinterpret_cast<const void __user *>(&dir), sizeof(dir));
}

/* One message to the daemon. */
struct test_record {
  int type; /* of the message: OX_OP_COLLECT, OX_OP_WRITE or OX_OP_STOP_RULE; -1: there was none */
  long length;
  char payload[4352];

  const struct ox_msg *msg() const { return reinterpret_cast<const struct ox_msg *>(payload); }
  const struct ox_msg_para *para() const {
    return reinterpret_cast<const struct ox_msg_para *>(payload);
  }
  const struct ox_msg_attr *attr() const {
    return reinterpret_cast<const struct ox_msg_attr *>(payload);
  }
  const struct ox_msg_wr *wr() const { return reinterpret_cast<const struct ox_msg_wr *>(payload); }
  int op() const { return type < 0 ? -1 : msg()->op; }
  const char *path1() const { return para()->data; }
  const char *path2() const { return para()->data + para()->dlen1; }
};

/* The registered daemon, which is the current task. */
class test_daemon {
 public:
  test_daemon() : record_(memory_.get()) {
    error_ = uk_nl_open(OX_NETLINK_UNIT, current->pid, 256UL << 20, &sock_);
    EXPECT_EQ(error_, 0);
    EXPECT_EQ(send(OX_NL_HELO), OX_NLMSG_HDRLEN);
  }
  ~test_daemon() {
    if (error_) return;
    send(OX_NL_QUIT);
    uk_nl_close(sock_);
  }
  test_daemon(const test_daemon &) = delete;
  test_daemon &operator=(const test_daemon &) = delete;

  /* The next message that waits. */
  const struct test_record &next() {
    auto *record = reinterpret_cast<struct test_record *>(record_);
    memset(record, 0, sizeof(*record));
    record->type = -1;
    const long length = uk_nl_recv(sock_, message_.get(), 4352, 0);
    if (length >= OX_NLMSG_HDRLEN) {
      const auto *header = reinterpret_cast<const struct nlmsghdr *>(message_.get());
      record->type = header->nlmsg_type;
      record->length = static_cast<long>(header->nlmsg_len) - OX_NLMSG_HDRLEN;
      memcpy(record->payload, message_.get() + OX_NLMSG_HDRLEN, length - OX_NLMSG_HDRLEN);
    }
    return *record;
  }
  /* Forgets what waits; how many messages that were. */
  int drain() {
    int count = 0;
    while (next().type >= 0) count++;
    return count;
  }

 private:
  long send(unsigned short type) {
    struct nlmsghdr header;
    memset(&header, 0, sizeof(header));
    header.nlmsg_len = sizeof(header);
    header.nlmsg_type = type;
    header.nlmsg_pid = current->pid;
    return uk_nl_send(sock_, &header, sizeof(header));
  }

  test_buffer memory_{8192};
  test_buffer message_{8192};
  char *record_;
  struct uk_nlsock *sock_ = nullptr;
  int error_;
};

/* A mount with a rule for everything in it, and the daemon that gets its records. */
struct replicated {
  test_mount mount;
  test_daemon daemon;
  replicated() { EXPECT_EQ(test_add_rule('r', "/lower"), 0); }
  ~replicated() { do_flush(0); }
};

/* ---- the kernel log ---- */

/* The number that the next log line gets. */
inline unsigned long long test_log_end() {
  struct uk_klog_line line;
  char buf[8];
  unsigned long long next = 0;
  while (uk_klog_read(next, 0, &line, buf, sizeof(buf)) == 1) next = line.number + 1;
  return next;
}

/* The number of the first log line from `from` on that is `text`, or -1: to see which of two came
 * first. */
inline long test_log_line(const char *text, unsigned long long from = 0) {
  struct uk_klog_line line;
  char buf[512];
  while (uk_klog_read(from, 0, &line, buf, sizeof(buf)) == 1) {
    if (!strcmp(buf, text)) return static_cast<long>(line.number);
    from = line.number + 1;
  }
  return -1;
}

#endif
