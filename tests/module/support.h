/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What the cases of the module share: rules and how they are installed, files with their lower
 * paths, a daemon that listens on the netlink socket. Everything belongs to the case; nothing
 * survives it.
 */
#ifndef TESTS_MODULE_SUPPORT_H
#define TESTS_MODULE_SUPPORT_H

#include "kernel.h"
#include "base64.h"
#include "netlink.h"
#include "ox_guard.h"
#include "ox_msg.h"
#include "ox_types.h"
#include "rule.h"
#include "tarn.h"
#include "tests/harness/case.h"
#include "trans.h"
#include "ukern/sched/task.h"
#include "ukern/door/uk_core.h"
#include "ukern/door/uk_fs.h"
#include "ukern/door/uk_net.h"
#include "ukern/testing/uk_fault.h"

namespace {

/* ---- rules ---- */

/* The text of a rule's workdir. */
class workdir_text {
 public:
  workdir_text() { text_[0] = '\0'; }
  workdir_text &include(const char *path) { return add("", path); }
  workdir_text &exclude(const char *path) { return add("!", path); }
  /* An entry as it stands. */
  workdir_text &raw(const char *entry) {
    if (len_) text_[len_++] = ',';
    const unsigned long len = strlen(entry);
    memcpy(text_ + len_, entry, len + 1);
    len_ += len;
    return *this;
  }
  const char *get() const { return text_; }

 private:
  workdir_text &add(const char *prefix, const char *path) {
    char entry[1024];
    strcpy(entry, prefix);
    ox_s32_t size = sizeof(entry) - 2;
    char *code = entry + strlen(prefix);
    if (!Base64Encode(path, static_cast<int>(strlen(path)), code, &size, 0)) return *this;
    return raw(entry);
  }
  char text_[OX_WORKDIR_LEN];
  unsigned long len_ = 0;
};

/* The rule record with that identifier, every byte of which is `id`. One for the whole case. */
inline struct prule *rule_record(int id, const char *workdir = "") {
  static struct prule record;
  memset(&record, 0, sizeof(record));
  memset(record.uuid, id, sizeof(record.uuid));
  strcpy(record.workdir, workdir);
  return &record;
}

/* Installs a rule as the kernel itself does; what do_add says. */
inline int install_rule(int id, const workdir_text &text) {
  kernel_ds_guard kernel_addresses;
  return do_add(rule_record(id, text.get()), sizeof(struct prule));
}
inline int install_rule(int id, const char *directory) {
  workdir_text text;
  return install_rule(id, text.include(directory));
}
inline int remove_rule(int id) {
  kernel_ds_guard kernel_addresses;
  return do_del(rule_record(id), sizeof(struct prule));
}
/* With a reference for the caller's scope. */
inline struct prule_node *lookup_rule(int id) {
  return findnode_byuuid(rule_record(id)->uuid);
}

/* ---- user memory ---- */

/* Declares memory of the case as the task's own for a scope. */
class user_memory {
 public:
  user_memory(const void *start, unsigned long len) : start_(start) { uk_user_add(start, len); }
  ~user_memory() { uk_user_del(start_); }
  user_memory(const user_memory &) = delete;
  user_memory &operator=(const user_memory &) = delete;

 private:
  const void *start_;
};

/* The task has no capability for a scope. */
class without_capabilities {
 public:
  without_capabilities() : cap_(current->cap_effective) { cap_clear(current->cap_effective); }
  ~without_capabilities() { current->cap_effective = cap_; }
  without_capabilities(const without_capabilities &) = delete;
  without_capabilities &operator=(const without_capabilities &) = delete;

 private:
  kernel_cap_t cap_;
};

/* Another program: its own process id, a plain user, the capabilities given. */
class other_program {
 public:
  explicit other_program(int pid, unsigned capabilities = 0) {
    uk_cred cred = {};
    cred.pid = pid;
    cred.uid = cred.gid = 1000;
    cred.cap_effective = capabilities;
    task_ = uk_task_new(&cred);
  }
  ~other_program() {
    if (task_) uk_task_put(task_);
  }
  other_program(const other_program &) = delete;
  other_program &operator=(const other_program &) = delete;
  struct uk_task *get() const {
    return task_;
  }
  bool signalled() const { return uk_task_signals(task_) & 1ull << (OX_SIG_LOST - 1); }

 private:
  struct uk_task *task_;
};

/* Acts as another program for a scope. */
class acting_as {
 public:
  explicit acting_as(const other_program &program) : self_(current) {
    ukern_set_current(nullptr);
    uk_task_enter(program.get());
  }
  ~acting_as() {
    uk_task_leave();
    ukern_set_current(self_);
  }
  acting_as(const acting_as &) = delete;
  acting_as &operator=(const acting_as &) = delete;

 private:
  struct task_struct *self_;
};

/* ---- files ---- */

inline int make_dir(const char *name) {
  struct uk_node *root, *made;
  struct uk_stat stat;
  int result = uk_node_at("/", &root);
  if (result) return result;
  result = uk_mkdir(root, name, 0755, &made, &stat);
  if (!result) uk_node_put(made, 1);
  uk_node_put(root, 1);
  return result;
}

/*
 * A file or directory of the root file system under the layer: `dentry()` is an upper dentry that
 * is bound to it, as far as capture looks. Made if there is none of the name.
 */
class bound_dentry {
 public:
  explicit bound_dentry(const char *path) {
    memset(&dentry_, 0, sizeof(dentry_));
    memset(&info_, 0, sizeof(info_));
    make(path);
    error_ = path_lookup(path, 0, &nd_);
    if (error_) return;
    info_.lower_path.dentry = nd_.dentry;
    info_.lower_path.mnt = nd_.mnt;
    dentry_.d_op = &tarn_dops;
    dentry_.d_fsdata = &info_;
  }
  ~bound_dentry() {
    if (!error_) path_release(&nd_);
  }
  bound_dentry(const bound_dentry &) = delete;
  bound_dentry &operator=(const bound_dentry &) = delete;

  int error() const { return error_; }
  struct dentry *get() {
    return &dentry_;
  }

 private:
  static void make(const char *path) {
    char parent[OX_PATH_MAX];
    strcpy(parent, path);
    char *slash = strrchr(parent, '/');
    const char *name = path + (slash - parent) + 1;
    slash[slash == parent] = '\0';
    struct uk_node *dir, *made;
    struct uk_stat stat;
    if (uk_node_at(parent, &dir)) return;
    if (!uk_mknod(dir, name, 0100644, 0, &made, &stat)) uk_node_put(made, 1);
    uk_node_put(dir, 1);
  }

  struct dentry dentry_;
  struct tarn_dentry_info info_;
  struct nameidata nd_;
  int error_;
};

/* ---- the daemon ---- */

/* A netlink message as it was received. */
struct nl_message {
  long len; /* of the whole datagram; negative: none came */
  alignas(8) ox_u8_t bytes[OX_NLMSG_HDRLEN + 20000];

  const struct nlmsghdr *head() const { return reinterpret_cast<const struct nlmsghdr *>(bytes); }
  int type() const { return len < 0 ? -1 : head()->nlmsg_type; }
  template <typename T>
  const T *payload() const {
    return reinterpret_cast<const T *>(bytes + OX_NLMSG_HDRLEN);
  }
  const struct ox_msg *msg() const { return payload<struct ox_msg>(); }
  const struct ox_msg_para *para() const { return payload<struct ox_msg_para>(); }
  const struct ox_msg_attr *attr() const { return payload<struct ox_msg_attr>(); }
  const struct ox_msg_wr *wr() const { return payload<struct ox_msg_wr>(); }
};

/* The user side of the netlink socket, at the port of the current task. Registers unless told not
 * to. */
class test_daemon {
 public:
  enum hello { kHello, kSilent };
  explicit test_daemon(hello say = kHello, unsigned long rcvbuf = 0) {
    error_ = uk_nl_open(OX_NETLINK_UNIT, static_cast<unsigned>(current->pid), rcvbuf, &sock_);
    if (!error_ && say == kHello) send(OX_NL_HELO);
  }
  ~test_daemon() { close(); }
  test_daemon(const test_daemon &) = delete;
  test_daemon &operator=(const test_daemon &) = delete;

  int error() const { return error_; }
  void close() {
    if (!error_) uk_nl_close(sock_);
    error_ = -ENOTCONN;
  }

  long send(int type, const void *payload = nullptr, unsigned len = 0) {
    static nl_message message;
    struct nlmsghdr head = {};
    head.nlmsg_len = OX_NLMSG_HDRLEN + len;
    head.nlmsg_type = static_cast<ox_u16_t>(type);
    memcpy(message.bytes, &head, sizeof(head));
    if (len) memcpy(message.bytes + OX_NLMSG_HDRLEN, payload, len);
    return send_bytes(message.bytes, head.nlmsg_len);
  }
  long send_bytes(const void *bytes, unsigned long len) { return uk_nl_send(sock_, bytes, len); }

  /* The next message; one buffer for the whole case. Its type is -1 when there is none. */
  const nl_message &next(unsigned wait_ms = 0) {
    static nl_message message;
    message.len = uk_nl_recv(sock_, message.bytes, sizeof(message.bytes), wait_ms);
    return message;
  }
  /* Nothing is waiting. */
  bool idle() { return next().len == -EAGAIN; }

 private:
  struct uk_nlsock *sock_;
  int error_;
};

/* How many lines the log has, without those of the worker thread, which come when it likes. */
inline int lines_logged() {
  struct uk_klog_line line;
  char text[64];
  int count = 0;
  for (unsigned long long next = 0; uk_klog_read(next, 0, &line, text, sizeof(text)) == 1;) {
    count += strncmp(text, "tarn_thd_trans:", 15) != 0;
    next = line.number + 1;
  }
  return count;
}

/* Balance of the blocks that the library counts, over a scope. */
class alloc_balance {
 public:
  int operator()() const { return atomic_read(&g_total_alloc) - before_; }

 private:
  int before_ = atomic_read(&g_total_alloc);
};

}  // namespace

#endif
