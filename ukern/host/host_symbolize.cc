// SPDX-License-Identifier: GPL-2.0
// Symbolizes addresses: with the sanitizer's symbolizer where one is linked in, else with
// addr2line, else as offsets into the program for a later addr2line.
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <spawn.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "ukern/host/host.h"

extern "C" {
__attribute__((weak)) void __sanitizer_symbolize_pc(void *pc, const char *format, char *out,
                                                    size_t size);
extern char **environ;
}

namespace {

constexpr size_t kLine = 512;

int first_object(dl_phdr_info *info, size_t, void *base) {
  *static_cast<unsigned long *>(base) = info->dlpi_addr;
  return 1;
}

unsigned long load_address() {
  unsigned long base = 0;
  dl_iterate_phdr(first_object, &base);
  return base;
}

// The output of addr2line for the addresses; empty when it cannot be run.
std::string run_addr2line(const std::vector<std::string> &addresses) {
  char program[4096];
  const ssize_t length = readlink("/proc/self/exe", program, sizeof(program) - 1);
  if (length <= 0) return {};
  program[length] = 0;

  std::vector<std::string> words = {"addr2line", "-C", "-f", "-p", "-s", "-e", program};
  words.insert(words.end(), addresses.begin(), addresses.end());
  std::vector<char *> argv;
  for (std::string &word : words) argv.push_back(word.data());
  argv.push_back(nullptr);

  int pipe_ends[2];
  if (pipe2(pipe_ends, O_CLOEXEC)) return {};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipe_ends[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid;
  const int error = posix_spawnp(&pid, "addr2line", &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipe_ends[1]);
  std::string text;
  if (!error) {
    char buffer[4096];
    ssize_t got;
    while ((got = read(pipe_ends[0], buffer, sizeof(buffer))) > 0)
      text.append(buffer, static_cast<size_t>(got));
    int status;
    waitpid(pid, &status, 0);
  }
  close(pipe_ends[0]);
  return text;
}

}  // namespace

void host_symbolize(const unsigned long *pcs, unsigned count,
                    void (*line)(void *arg, const char *text), void *arg) {
  if (__sanitizer_symbolize_pc) {
    for (unsigned i = 0; i < count; i++) {
      char text[kLine];
      // The sanitizer takes a return address and looks up the call before it.
      __sanitizer_symbolize_pc(reinterpret_cast<void *>(pcs[i]), "%f %s:%l", text, sizeof(text));
      line(arg, text);
    }
    return;
  }

  const unsigned long base = load_address();
  std::vector<std::string> addresses;
  for (unsigned i = 0; i < count; i++) {
    char text[32];
    snprintf(text, sizeof(text), "0x%lx", pcs[i] - 1 - base);
    addresses.emplace_back(text);
  }
  const std::string answer = run_addr2line(addresses);
  size_t at = 0;
  for (unsigned i = 0; i < count; i++) {
    const size_t end = answer.find('\n', at);
    if (end == std::string::npos) {
      line(arg, ("offset " + addresses[i]).c_str());
      continue;
    }
    line(arg, answer.substr(at, end - at).c_str());
    at = end + 1;
  }
}
