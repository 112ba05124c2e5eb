// SPDX-License-Identifier: GPL-2.0
#include "tarn/start_tarnd.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "base/run_dir.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "module/os_public/Include/ox_ctl.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

constexpr auto kStopTimeout = std::chrono::seconds(30);
constexpr auto kPoll = std::chrono::milliseconds(20);

constexpr char kServiceManagerRuns[] = "/run/systemd/system";
constexpr char kUnit[] = "tarnd.service";
constexpr char kUnitRunDir[] = "/run/tarn";
/* systemctl's exit status if there is no such unit. */
constexpr int kNoSuchUnit = 5;

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

/* How a program ended, and what it wrote to its standard error. */
struct Ended {
  int status; /* as waitpid() has it */
  std::string said;

  bool well() const { return WIFEXITED(status) && WEXITSTATUS(status) == 0; }
};

/* Runs a program, which is looked for in PATH if its name has no slash, without input and output.
 */
Result<Ended> run(std::vector<std::string> arguments) {
  const std::string what = "cannot start " + printable(arguments[0]);
  // A file, not a pipe: a tarnd in the background may keep it open.
  const UniqueFd errors(memfd_create("stderr", MFD_CLOEXEC));
  if (!errors) return system_error(errno, what);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, errors.get(), 2);
  std::vector<char *> words;
  words.reserve(arguments.size() + 1);
  for (std::string &argument : arguments) words.push_back(argument.data());
  words.push_back(nullptr);
  // If our parent left SIGCHLD ignored, waitpid() could not get the exit status.
  signal(SIGCHLD, SIG_DFL);
  pid_t pid;
  const int err = posix_spawnp(&pid, words[0], &actions, nullptr, words.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (err != 0) return system_error(err, what);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return Ended{status, written(errors.get())};
}

Result<Starter> start_program(const std::string &run_dir) {
  const auto program = find_tarnd();
  if (!program) return Error{kNotStarted, program.error().text};
  const auto ended = run({*program, "--run-dir", run_dir});
  if (!ended) return Error{kNotStarted, ended.error().text};
  if (ended->well()) return Starter::kCaller;
  if (!ended->said.empty()) return Error{kNotStarted, ended->said};
  if (WIFSIGNALED(ended->status))
    return Error{kNotStarted, fmt::format("{} was ended by signal {}", printable(*program),
                                          WTERMSIG(ended->status))};
  return Error{kNotStarted, fmt::format("{} failed and did not say why: try '{} --foreground'",
                                        printable(*program), *program)};
}

bool is_the_unit_s(const std::string &run_dir) {
  return geteuid() == 0 && run_dir == kUnitRunDir && access(kServiceManagerRuns, F_OK) == 0;
}

}  // namespace

Result<Starter> start_tarnd(const std::string &run_dir) {
  if (!is_the_unit_s(run_dir)) return start_program(run_dir);
  const auto ended = run({"systemctl", "start", kUnit});
  // A machine without systemctl, or without the unit: programs that were copied by hand.
  if (!ended || (WIFEXITED(ended->status) && WEXITSTATUS(ended->status) == kNoSuchUnit))
    return start_program(run_dir);
  if (ended->well()) return Starter::kServiceManager;
  return Error{kNotStarted,
               fmt::format("{} did not start: see 'journalctl --unit {}'", kUnit, kUnit)};
}

bool tarnd_lives(const std::string &run_dir) {
  const UniqueFd lock(open((run_dir + "/" + kTarndLock).c_str(), O_RDONLY | O_CLOEXEC));
  return lock && flock(lock.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

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

}  // namespace tarn
