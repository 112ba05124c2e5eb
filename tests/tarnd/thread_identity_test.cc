// SPDX-License-Identifier: GPL-2.0
// When a thread is given another identity for the host's file systems.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>

#include "ukern/host/host_fs.h"

namespace tarnd {
namespace {

// Takes a capability from the process, as a container does.
bool lose(int capability) {
  __user_cap_header_struct head = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[2] = {};
  if (syscall(SYS_capget, &head, sets) != 0) return false;
  sets[0].effective &= ~(1u << capability);
  sets[0].permitted &= ~(1u << capability);
  sets[0].inheritable &= ~(1u << capability);
  return syscall(SYS_capset, &head, sets) == 0;
}

// From now on a change of capabilities ends the process.
bool refuse_changes() {
  sock_filter code[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_capset, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog program = {sizeof(code) / sizeof(code[0]), code};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0) == 0;
}

enum class Others { kTheSuperusers, kAUsers };

// Exits with 0 when an opening after a check for the superuser takes no change of identity; the
// one after a check for a user takes one.
[[noreturn]] void check_and_open(Others last) {
  const int path = open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
  const host_identity superuser = {0, 0, 0, nullptr, ~(1u << CAP_LEASE)};
  const host_identity user = {1, 1, 0, nullptr, 0};
  if (path < 0 || !lose(CAP_LEASE)) _exit(2);
  const host_identity *as = last == Others::kAUsers ? &user : &superuser;
  if (host_fs_access(as, path, R_OK) != 0 || !refuse_changes()) _exit(3);
  const int data = host_fs_open(path, HOST_OPEN_DIR);
  _exit(data >= 0 && host_fs_access(&superuser, path, R_OK) == 0 ? 0 : 4);
}

int status_of(Others last) {
  const pid_t pid = fork();
  if (pid == 0) check_and_open(last);
  int status = -1;
  waitpid(pid, &status, 0);
  return status;
}

TEST(ThreadIdentity, data_is_opened_as_the_superuser_without_a_change) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can be somebody else";
  EXPECT_EQ(status_of(Others::kTheSuperusers), 0);
  const int changed = status_of(Others::kAUsers);
  EXPECT_TRUE(WIFSIGNALED(changed) && WTERMSIG(changed) == SIGSYS) << changed;
}

}  // namespace
}  // namespace tarnd
