// SPDX-License-Identifier: GPL-2.0
// mount, umount and stop: mounts, and starting and ending tarnd.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <cerrno>
#include <cmath>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include <fmt/format.h>

#include "base/run_dir.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "client/control.h"
#include "client/paths.h"
#include "client/site.h"
#include "module/os_public/Include/ox_ctl.h"
#include "tarn/commands.h"
#include "tarn/request.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

constexpr auto kStopTimeout = std::chrono::seconds(30);
constexpr auto kStartTimeout = std::chrono::seconds(10);
constexpr auto kPoll = std::chrono::milliseconds(20);

/* Error code: tarnd could not be started. */
constexpr int kNotStarted = -ECHILD;

/* The canonical path of an existing directory. */
Result<std::string> directory(const std::string &path, const std::string &role) {
  std::error_code error;
  const fs::path whole = fs::canonical(path, error);
  const std::string what = fmt::format("cannot mount: the {} {}", role, printable(path));
  if (error == std::errc::no_such_file_or_directory)
    return Error{-ENOENT, what + " does not exist: create the directory first"};
  if (error) return system_error(error.value(), what);
  const bool is_directory = fs::is_directory(whole, error);
  // The dead mount of a killed tarnd; the next tarnd replaces it.
  if (error == std::errc::not_connected) return whole.string();
  if (!is_directory) return Error{-ENOTDIR, what + " is not a directory: name one"};
  return whole.string();
}

bool runnable(const fs::path &path) {
  std::error_code error;
  return fs::is_regular_file(path, error) && access(path.c_str(), X_OK) == 0;
}

/* Searches beside this program, in its build tree or installation, and in PATH. */
Result<std::string> find_tarnd() {
  std::error_code error;
  const fs::path here = fs::read_symlink("/proc/self/exe", error).parent_path();
  for (const char *place : {"tarnd", "../tarnd/tarnd", "../sbin/tarnd", "../libexec/tarn/tarnd"}) {
    if (!error && runnable(here / place)) return (here / place).lexically_normal().string();
  }
  const char *path = std::getenv("PATH");
  std::string_view rest = path ? path : "";
  while (!rest.empty()) {
    const std::string_view folder = take_until(rest, ':');
    if (!folder.empty() && runnable(fs::path(folder) / "tarnd"))
      return (fs::path(folder) / "tarnd").string();
  }
  return Error{
      -ENOENT,
      fmt::format("tarnd was not found beside {}, in ../sbin, in ../libexec/tarn or in PATH: "
                  "install it, or put its folder in PATH; or load the module into the kernel",
                  printable(here.string()))};
}

/* The contents of a file that was a program's stderr, without trailing newlines. */
std::string written(int fd) {
  std::string text;
  char part[4096];
  ssize_t got;
  while ((got = pread(fd, part, sizeof(part), static_cast<off_t>(text.size()))) > 0)
    text.append(part, static_cast<std::size_t>(got));
  while (text.ends_with('\n')) text.pop_back();
  return text;
}

/* Starts tarnd and waits until it serves and has gone to the background. The error text is
 * tarnd's. */
Result<void> start_tarnd(const std::string &run_dir) {
  const auto program = find_tarnd();
  if (!program) return Error{kNotStarted, program.error().text};
  const std::string what = "cannot start " + printable(*program);
  // A file, not a pipe: a tarnd in the background may keep it open.
  const UniqueFd errors(memfd_create("tarnd-stderr", MFD_CLOEXEC));
  if (!errors) return system_error(errno, what);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, errors.get(), 2);
  std::string option = "--run-dir", name = "tarnd", directory = run_dir;
  char *arguments[] = {name.data(), option.data(), directory.data(), nullptr};
  // If our parent left SIGCHLD ignored, waitpid() could not get tarnd's exit status.
  signal(SIGCHLD, SIG_DFL);
  pid_t pid;
  const int err = posix_spawn(&pid, program->c_str(), &actions, nullptr, arguments, environ);
  posix_spawn_file_actions_destroy(&actions);
  if (err != 0) return Error{kNotStarted, system_error(err, what).text};
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return {};
  std::string said = written(errors.get());
  if (said.empty())
    said = WIFSIGNALED(status)
               ? fmt::format("{} was ended by signal {}", *program, WTERMSIG(status))
               : fmt::format("{} failed and did not say why: try '{} --foreground'",
                             printable(*program), *program);
  return Error{kNotStarted, said};
}

bool tarnd_lives(const std::string &run_dir) {
  const UniqueFd lock(open((run_dir + "/" + kTarndLock).c_str(), O_RDONLY | O_CLOEXEC));
  return lock && flock(lock.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

/* Ends tarnd and waits until it has released its lock. */
Result<void> stop_tarnd(const std::string &run_dir) {
  // While the connection is open, the process id is not reused.
  const auto connection = connect_socket(run_dir, OX_CTL_SOCKET);
  if (!connection) return connection.error();
  const auto pid = serving_process(*connection);
  if (!pid) return pid.error();
  if (kill(*pid, SIGTERM) != 0)
    return system_error(errno, fmt::format("cannot end tarnd (process {})", *pid));
  const auto deadline = std::chrono::steady_clock::now() + kStopTimeout;
  while (tarnd_lives(run_dir)) {
    if (std::chrono::steady_clock::now() > deadline)
      return Error{
          -EBUSY,
          fmt::format("tarnd (process {}) did not end: a mount may be busy; see 'tarn status'",
                      *pid)};
    std::this_thread::sleep_for(kPoll);
  }
  return {};
}

/* Unmounts all idle mounts in reverse order, as a mount may lie on or above an earlier one. Prints
 * a note for each busy one, which tarnd aborts when it ends. */
void unmount_idle(const std::string &run_dir) {
  auto channel = ControlChannel::connect(tarnd_site(run_dir));
  if (!channel) return;
  const auto mounts = channel->mounts();
  if (!mounts) return;
  for (auto mount = mounts->rbegin(); mount != mounts->rend(); ++mount) {
    const auto unmounted = channel->umount(mount->mountpoint, Umount::kIfIdle);
    if (!unmounted && unmounted.error().code == -EBUSY)
      std::fprintf(stderr,
                   "tarn: note: programs use %s: it is unmounted all the same, and they get errors "
                   "from now on\n",
                   printable(mount->mountpoint).c_str());
  }
}

struct Connection {
  ControlChannel channel;
  bool started_here; /* no tarnd ran before */
};

/* Connects to the module of the site; starts a tarnd if none runs. */
Result<Connection> connect_or_start(const Site &site) {
  if (site.in_kernel()) {
    auto channel = ControlChannel::connect(site);
    if (!channel) return channel.error();
    return Connection{std::move(*channel), false};
  }
  const std::string &run_dir = site.run_dir;
  const auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
  for (;;) {
    auto channel = ControlChannel::connect(tarnd_site(run_dir));
    if (channel) return Connection{std::move(*channel), false};
    if (!no_tarnd_there(channel.error())) return channel.error();
    const auto start = start_tarnd(run_dir);
    channel = ControlChannel::connect(tarnd_site(run_dir));
    if (channel) return Connection{std::move(*channel), start.ok()};
    // A tarnd that another program has just started, or that is just ending, is not a failure yet:
    // retry.
    if (start || !tarnd_lives(run_dir) || std::chrono::steady_clock::now() > deadline)
      return start ? channel.error() : start.error();
    std::this_thread::sleep_for(kPoll);
  }
}

}  // namespace

int mount_command(const std::string &lower, const std::string &mountpoint,
                  std::optional<double> cache) {
  std::optional<std::chrono::milliseconds> time;
  if (cache) time = std::chrono::milliseconds(std::lround(*cache * 1000));
  const auto from = directory(lower, "lower directory");
  if (!from) return fail(from.error());
  const auto at = directory(mountpoint, "mount point");
  if (!at) return fail(at.error());

  const Site site = find_site();
  auto connection = connect_or_start(site);
  if (!connection && connection.error().code == kNotStarted) {
    // The text is tarnd's; its lines begin with its name.
    const std::string &said = connection.error().text;
    std::fprintf(stderr, "%s%s\n", said.starts_with("tarnd:") ? "" : "tarn: ", said.c_str());
    return kExitCannotStart;
  }
  if (!connection) return fail(connection.error());
  const auto mounted = connection->channel.mount(*from, *at, time);
  if (mounted) return kExitOk;
  if (connection->started_here) {
    if (auto stopped = stop_tarnd(site.run_dir); !stopped) fail(stopped.error());
  }
  return fail(mounted.error());
}

int umount_command(const std::string &mountpoint, bool lazily) {
  const auto how = lazily ? Umount::kLazily : Umount::kIfIdle;
  return ask_module(
      [&](ControlChannel &channel) { return channel.umount(whole_mountpoint(mountpoint), how); });
}

int stop_command() {
  const Site site = find_site();
  if (site.in_kernel())
    return fail({-EOPNOTSUPP,
                 "no tarnd runs that could be stopped; the module is in the running kernel: take "
                 "its mounts away with 'tarn umount' and unload it with 'rmmod tarn'"});
  unmount_idle(site.run_dir);
  const auto stopped = stop_tarnd(site.run_dir);
  return stopped ? kExitOk : fail(stopped.error());
}

}  // namespace tarn
