// SPDX-License-Identifier: GPL-2.0
#include "tarnd/background.h"

#include <fcntl.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace tarnd {

static constexpr char kReady = '+';

static void write_all(int fd, const std::string &text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;  // the starter is gone; nobody wants to know
    done += static_cast<size_t>(n);
  }
}

void Starter::ready() {
  if (pipe_) write_all(pipe_.get(), std::string(1, kReady));
  pipe_.reset();
}

void Starter::failed(const std::string &reason) {
  if (pipe_) write_all(pipe_.get(), reason);
  pipe_.reset();
}

static std::string read_all(int fd) {
  std::string text;
  char buf[512];
  for (;;) {
    const ssize_t n = read(fd, buf, sizeof(buf));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return text;
    text.append(buf, static_cast<size_t>(n));
  }
}

static std::string describe_end(pid_t child, const std::string &log) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  const std::string how = WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                                              : "status " + std::to_string(WEXITSTATUS(status));
  return "ended with " + how + " before it was ready; see " + log;
}

[[noreturn]] static void wait_for_background(pid_t child, int pipe, const std::string &log) {
  std::string text = read_all(pipe);
  if (text.size() == 1 && text[0] == kReady) std::_Exit(EXIT_SUCCESS);
  if (text.empty()) text = describe_end(child, log);
  std::fprintf(stderr, "tarnd: %s\n", text.c_str());
  std::_Exit(EXIT_FAILURE);
}

static void redirect(const char *path, int flags, int to) {
  UniqueFd fd(open(path, flags | O_CLOEXEC, 0600));
  if (!fd || dup2(fd.get(), to) < 0)
    throw std::runtime_error(std::string("cannot open ") + path + ": " + std::strerror(errno));
}

void hold_standard_descriptors() {
  int fd;
  do {
    fd = open("/dev/null", O_RDONLY);
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd >= 0) close(fd);
}

void close_inherited_descriptors() {
  close_range(STDERR_FILENO + 1, ~0u, 0);
}

Starter go_to_background(const std::string &log) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0)
    throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
  UniqueFd from(ends[0]);
  UniqueFd to(ends[1]);
  std::fflush(nullptr);

  const pid_t child = fork();
  if (child < 0) throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
  if (child > 0) {
    to.reset();
    wait_for_background(child, from.get(), log);
  }

  Starter starter(std::move(to));
  try {
    setsid();
    if (chdir("/") != 0) throw std::runtime_error(std::string("chdir: ") + std::strerror(errno));
    redirect("/dev/null", O_RDONLY, STDIN_FILENO);
    redirect(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_NOFOLLOW, STDOUT_FILENO);
    if (dup2(STDOUT_FILENO, STDERR_FILENO) < 0)
      throw std::runtime_error(std::string("dup2: ") + std::strerror(errno));
  } catch (const std::exception &e) {
    starter.failed(e.what());
    std::_Exit(EXIT_FAILURE);
  }
  return starter;
}

}  // namespace tarnd
