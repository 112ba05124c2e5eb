// SPDX-License-Identifier: GPL-2.0
#include "bench/fixture.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/netlink.h>

#include "bench/bench.h"
#include "bench/kernel_side.h"
#include "ox_msg.h"

namespace {

constexpr int kMainPid = 1000;
constexpr unsigned long kQueueBytes = 256UL << 20;
constexpr const char *kDirs[] = {"lower", "mnt"};

void must(int result, const char *what) {
  if (result < 0) fail(fmt::format("{}: error {}", what, result));
}

uk_node *node_at(const char *path) {
  uk_node *node = nullptr;
  must(uk_node_at(path, &node), path);
  return node;
}

uk_node *make_dir(uk_node *dir, const char *name) {
  uk_node *made = nullptr;
  uk_stat stat;
  must(uk_mkdir(dir, name, 0755, &made, &stat), name);
  return made;
}

// A file some way down, so that its path has a usual length.
uk_file *make_file(const char *mount_point) {
  uk_node *dir = node_at(mount_point);
  for (const char *name : {"projects", "warehouse", "site-04", "customer-09731"}) {
    uk_node *made = make_dir(dir, name);
    uk_node_put(dir, 1);
    dir = made;
  }
  uk_node *node = nullptr;
  uk_file *file = nullptr;
  uk_stat stat;
  must(uk_create(dir, "orders-2026-11-21.csv", O_RDWR, 0644, &node, &file, &stat), "create");
  uk_node_put(node, 1);
  uk_node_put(dir, 1);
  return file;
}

}  // namespace

BenchTask::BenchTask(int pid) {
  uk_cred root = {};
  root.pid = pid;
  root.cap_effective = ~0u;
  task_ = uk_task_new(&root);
  if (!task_) fail("no task");
  uk_task_enter(task_);
}

BenchTask::~BenchTask() {
  uk_task_leave();
  uk_task_put(task_);
}

BenchDaemon::BenchDaemon(int pid, unsigned long queue_bytes) {
  must(uk_nl_open(OX_NETLINK_UNIT, static_cast<unsigned>(pid), queue_bytes, &sock_), "netlink");
}

BenchDaemon::~BenchDaemon() {
  uk_nl_close(sock_);
}

void BenchDaemon::control(bool hello) {
  nlmsghdr head = {};
  head.nlmsg_len = sizeof(head);
  head.nlmsg_type = hello ? OX_NL_HELO : OX_NL_QUIT;
  must(static_cast<int>(uk_nl_send(sock_, &head, sizeof(head))), "control message");
}

unsigned BenchDaemon::drain() {
  static char message[8192];
  unsigned count = 0;
  while (receive(message, sizeof(message), 0) > 0) count++;
  return count;
}

BenchKernel::BenchKernel() {
  uk_boot_options options = {};
  options.root_type = "memfs";
  must(uk_boot(&options), "boot");
  task_ = new BenchTask(kMainPid);
  must(uk_module_load("tarn"), "module");
  uk_node *root = node_at("/");
  for (const char *dir : kDirs) uk_node_put(make_dir(root, dir), 1);
  uk_node_put(root, 1);
  must(uk_fs_mount(kLowerDir, "/mnt", "tarn", 0, nullptr), "mount");
  file_ = make_file("/mnt");
  daemon_ = new BenchDaemon(kMainPid, kQueueBytes);
}

BenchKernel::~BenchKernel() {
  delete daemon_;
  uk_release(file_);
  must(uk_fs_umount("/mnt", 0), "umount");
  must(uk_module_unload("tarn"), "module");
  delete task_;
  must(uk_shutdown() ? -1 : 0, "shutdown");
}

void BenchKernel::install_rules(const std::vector<std::string> &dirs) {
  if (dirs == rules_) return;
  uk_bench_rules_flush();
  unsigned id = 0;
  for (const std::string &dir : dirs) must(uk_bench_rule_add(id++, dir.c_str()), "rule");
  rules_ = dirs;
}

BenchKernel &bench_kernel() {
  static BenchKernel kernel;
  return kernel;
}
