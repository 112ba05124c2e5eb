/* SPDX-License-Identifier: GPL-2.0 */
/* Runs a program of the project as a user would, and says how it ended and what it printed. */
#ifndef TARN_TESTS_REPLICATE_RUN_PROGRAM_H
#define TARN_TESTS_REPLICATE_RUN_PROGRAM_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "base/unique_fd.h"

namespace tarn::test {

struct Ended {
  int exit = -1; /* 128 + signal if one ended it */
  std::string out;
  std::string err;
};

/* A program that runs. Ended with SIGKILL if the object goes first. */
class Program {
 public:
  Program(const std::string &path, const std::vector<std::string> &arguments,
          const std::vector<std::string> &environment = {});
  ~Program();
  Program(const Program &) = delete;
  Program &operator=(const Program &) = delete;

  pid_t pid() const { return pid_; }
  void signal(int number) const;
  Ended wait();
  /* What it has printed so far. */
  std::string out() const;
  std::string err() const;

 private:
  pid_t pid_ = -1;
  UniqueFd out_, err_;
};

Ended run(const std::string &path, const std::vector<std::string> &arguments,
          const std::vector<std::string> &environment = {});

/* Polls until the condition holds; false after a minute. */
bool eventually(auto condition) {
  for (int i = 0; i < 6000; ++i) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

}  // namespace tarn::test

#endif
