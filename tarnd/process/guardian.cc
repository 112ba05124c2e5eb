// SPDX-License-Identifier: GPL-2.0
#include "tarnd/process/guardian.h"

#include <spawn.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <set>
#include <vector>

#include <fmt/format.h>

#include "base/mount_table.h"
#include "base/print_error.h"

namespace tarnd {

using tarn::Result;
using tarn::system_error;
using tarn::UniqueFd;

static constexpr char kWatch = '+';
static constexpr char kForget = '-';

static int run_unmount_helper(const std::string &mountpoint, Detach how) {
  std::vector<const char *> argv = {"fusermount3", "-u", "-q"};
  if (how == Detach::kLazily) argv.push_back("-z");
  argv.push_back("--");
  argv.push_back(mountpoint.c_str());
  argv.push_back(nullptr);
  pid_t child;
  const int err = posix_spawnp(&child, argv[0], nullptr, nullptr,
                               const_cast<char *const *>(argv.data()), environ);
  if (err != 0) return -err;
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return -errno;
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : -EBUSY;
}

int unmount_host(const std::string &mountpoint, Detach how) {
  if (geteuid() != 0) return run_unmount_helper(mountpoint, how);
  const int flags = UMOUNT_NOFOLLOW | (how == Detach::kLazily ? MNT_DETACH : 0);
  return umount2(mountpoint.c_str(), flags) == 0 ? 0 : -errno;
}

bool is_tarn_mount(const std::string &mountpoint) {
  bool ours = false;
  for (const tarn::MountEntry &mount : tarn::mount_table())
    if (mount.mountpoint == mountpoint) ours = mount.type == "fuse.tarn";
  return ours;
}

// Aborts pending requests. Threads of the killed tarnd may themselves wait for one in the host's
// kernel and keep the process alive; MNT_FORCE aborts the requests. The open descriptor keeps the
// mount busy, so that it is not unmounted.
static void abort_requests(const std::string &mountpoint) {
  const UniqueFd busy(open(mountpoint.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (busy && geteuid() == 0) umount2(mountpoint.c_str(), UMOUNT_NOFOLLOW | MNT_FORCE);
}

bool is_dead_tarn_mount(const std::string &mountpoint) {
  // The host may still keep the attributes of a dead mount's root.
  struct statx st;
  const int result = statx(AT_FDCWD, mountpoint.c_str(), AT_STATX_FORCE_SYNC, STATX_TYPE, &st);
  return result != 0 && errno == ENOTCONN && is_tarn_mount(mountpoint);
}

[[noreturn]] static void guard(int socket) {
  prctl(PR_SET_NAME, "tarnd-guardian");
  for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) std::signal(signal, SIG_IGN);
  std::set<std::string> mounts;
  std::vector<char> buf(PATH_MAX + 1);
  for (;;) {
    const ssize_t n = recv(socket, buf.data(), buf.size(), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    const std::string mountpoint(buf.data() + 1, static_cast<size_t>(n) - 1);
    if (buf[0] == kWatch) mounts.insert(mountpoint);
    if (buf[0] == kForget) mounts.erase(mountpoint);
  }
  for (const std::string &mountpoint : mounts)
    if (is_tarn_mount(mountpoint)) abort_requests(mountpoint);
  std::_Exit(EXIT_SUCCESS);
}

Result<std::unique_ptr<Guardian>> Guardian::start() {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
    return system_error(errno, "socketpair");
  UniqueFd socket(ends[0]);
  const UniqueFd far(ends[1]);
  const pid_t pid = fork();
  if (pid < 0) return system_error(errno, "fork");
  if (pid > 0) return std::unique_ptr<Guardian>(new Guardian(std::move(socket), pid));

  // Its own session: a signal to tarnd's process group must not end it too.
  setsid();
  // Closes all but the socket: an inherited ready pipe would block the parent, and an open file
  // would keep its file system busy.
  dup2(far.get(), STDIN_FILENO);
  close_range(STDERR_FILENO + 1, ~0u, 0);
  guard(STDIN_FILENO);
}

Guardian::~Guardian() {
  socket_.reset();
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
}

void Guardian::send(char command, const std::string &mountpoint) {
  const std::string text = command + mountpoint;
  while (::send(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL) < 0) {
    if (errno == EINTR) continue;
    const tarn::Error error = system_error(
        errno, fmt::format("tarnd: the guardian (process {}) does not listen any more", pid_));
    if (loss_reported_.exchange(true)) return;
    tarn::print_error(
        "{}; should tarnd be killed, programs may wait on its mounts until 'umount -f' ends "
        "that; restart tarnd to have a guardian\n",
        error.text);
    return;
  }
}

void Guardian::watch(const std::string &mountpoint) {
  send(kWatch, mountpoint);
}

void Guardian::forget(const std::string &mountpoint) {
  send(kForget, mountpoint);
}

}  // namespace tarnd
