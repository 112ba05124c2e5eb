// SPDX-License-Identifier: GPL-2.0
#include "tests/replicate/run_program.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <cerrno>
#include <stdexcept>

namespace tarn::test {
namespace {

std::string contents(int fd) {
  std::string text;
  char part[4096];
  ssize_t got;
  while ((got = pread(fd, part, sizeof(part), static_cast<off_t>(text.size()))) > 0)
    text.append(part, static_cast<std::size_t>(got));
  return text;
}

std::vector<char *> pointers(std::vector<std::string> &strings) {
  std::vector<char *> list;
  for (std::string &string : strings) list.push_back(string.data());
  list.push_back(nullptr);
  return list;
}

}  // namespace

Program::Program(const std::string &path, const std::vector<std::string> &arguments,
                 const std::vector<std::string> &environment)
    : out_(memfd_create("out", MFD_CLOEXEC)), err_(memfd_create("err", MFD_CLOEXEC)) {
  std::vector<std::string> words = {path}, variables = environment;
  words.insert(words.end(), arguments.begin(), arguments.end());
  for (char **variable = environ; *variable; ++variable) variables.emplace_back(*variable);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out_.get(), 1);
  posix_spawn_file_actions_adddup2(&actions, err_.get(), 2);
  auto argv = pointers(words), envp = pointers(variables);
  const int err = posix_spawn(&pid_, path.c_str(), &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (err != 0) throw std::runtime_error("cannot run " + path);
}

Program::~Program() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

void Program::signal(int number) const {
  kill(pid_, number);
}

Ended Program::wait() {
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), out(), err()};
}

std::string Program::out() const {
  return contents(out_.get());
}
std::string Program::err() const {
  return contents(err_.get());
}

Ended run(const std::string &path, const std::vector<std::string> &arguments,
          const std::vector<std::string> &environment) {
  return Program(path, arguments, environment).wait();
}

}  // namespace tarn::test
