// SPDX-License-Identifier: GPL-2.0
#include "mirrord/catch_up.h"

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <thread>

#include <fmt/format.h>

#include "base/text.h"

namespace tarn {
namespace {

constexpr std::chrono::milliseconds kPoll{5};

/* Process ids are reused: does this one still belong to a mirrord? */
enum class Program { kOurs, kAnother, kUnknown };

Program program_of(pid_t pid) {
  namespace fs = std::filesystem;
  std::error_code error1, error2;
  const auto theirs = fs::read_symlink(fmt::format("/proc/{}/exe", pid), error1);
  const auto ours = fs::read_symlink("/proc/self/exe", error2);
  if (error1 == std::errc::permission_denied) return Program::kUnknown;
  return !error1 && !error2 && theirs == ours ? Program::kOurs : Program::kAnother;
}

}  // namespace

Result<CatchUpState> catch_up(const std::string &status_file, std::chrono::seconds patience) {
  const std::int64_t requested = monotonic_ns();
  const auto deadline = std::chrono::steady_clock::now() + patience;
  bool signalled = false;
  for (;;) {
    const auto state = read_status(status_file);
    if (!state) return state.error();
    const Program program = program_of(state->pid);
    if (!state->running || program == Program::kAnother)
      return Error{-ESRCH,
                   fmt::format("the mirrord that wrote {} has ended", printable(status_file))};
    if (program == Program::kUnknown)
      return Error{-EPERM, fmt::format("cannot ask mirrord (process {}): only root and the user "
                                       "that it runs as may",
                                       state->pid)};
    if (state->caught_up_to_ns >= requested) return state;
    if (!signalled && kill(state->pid, SIGUSR1) != 0)
      return system_error(errno, fmt::format("cannot ask mirrord (process {})", state->pid));
    signalled = true;
    if (std::chrono::steady_clock::now() > deadline)
      return Error{-ETIMEDOUT,
                   fmt::format("mirrord has not caught up within {} s", patience.count())};
    std::this_thread::sleep_for(kPoll);
  }
}

}  // namespace tarn
