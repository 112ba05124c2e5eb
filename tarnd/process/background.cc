// SPDX-License-Identifier: GPL-2.0
#include "tarnd/process/background.h"

#include <fcntl.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <fmt/format.h>

#include "base/print_error.h"
#include "base/text.h"
#include "base/text_file.h"

namespace tarnd {

using tarn::Result;
using tarn::system_error;
using tarn::UniqueFd;

void ReadyPipe::send(const std::string &text) {
  // An error means that the parent has ended.
  if (pipe_) static_cast<void>(tarn::write_text(pipe_.get(), text));
  pipe_.reset();
}

static std::string describe_end(pid_t child, const std::string &log) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  const std::string how = WIFSIGNALED(status) ? fmt::format("signal {}", WTERMSIG(status))
                                              : fmt::format("status {}", WEXITSTATUS(status));
  return fmt::format("ended with {} before it was ready; see {}", how, tarn::printable(log));
}

[[noreturn]] static void wait_for_background(pid_t child, int pipe, const std::string &log) {
  const auto said = tarn::read_text(pipe, "pipe");
  if (said && *said == ReadyPipe::kReady) std::_Exit(EXIT_SUCCESS);
  const std::string reason = said && !said->empty() ? *said : describe_end(child, log);
  tarn::print_error("tarnd: {}\n", reason);
  std::_Exit(EXIT_FAILURE);
}

static Result<void> redirect(const std::string &path, int flags, int to) {
  const UniqueFd fd(open(path.c_str(), flags | O_CLOEXEC, 0600));
  if (!fd || dup2(fd.get(), to) < 0)
    return system_error(errno, "cannot open " + tarn::printable(path));
  return {};
}

void close_inherited_descriptors() {
  close_range(STDERR_FILENO + 1, ~0u, 0);
}

static Result<void> leave_terminal(const std::string &log) {
  setsid();
  if (chdir("/") != 0) return system_error(errno, "chdir");
  if (auto input = redirect("/dev/null", O_RDONLY, STDIN_FILENO); !input) return input;
  constexpr int kLog = O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_NOFOLLOW;
  if (auto output = redirect(log, kLog, STDOUT_FILENO); !output) return output;
  if (dup2(STDOUT_FILENO, STDERR_FILENO) < 0) return system_error(errno, "dup2");
  return {};
}

Result<ReadyPipe> go_to_background(const std::string &log) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return system_error(errno, "pipe");
  const UniqueFd from(ends[0]);
  UniqueFd to(ends[1]);
  std::fflush(nullptr);

  const pid_t child = fork();
  if (child < 0) return system_error(errno, "fork");
  if (child > 0) {
    to.reset();
    wait_for_background(child, from.get(), log);
  }

  ReadyPipe ready(std::move(to));
  if (auto left = leave_terminal(log); !left) {
    ready.failed(left.error().text);
    std::_Exit(EXIT_FAILURE);
  }
  return ready;
}

}  // namespace tarnd
