// SPDX-License-Identifier: GPL-2.0
// Runs the kernel-side cases linked into this program as GoogleTest tests: one freshly booted
// kernel and one root task for each, and a shutdown afterwards that reports whatever the case left
// behind. Several cases run in a process each, so that none sees the static data of another; one
// alone, as ctest and a debugger run it, runs in this process.
#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#define TARN_CASES_HOSTED
#include "tests/harness/case.h"
#include "ukern/door/uk_core.h"
#include "ukern/testing/uk_fault.h"

namespace {

constexpr int kReportExit = 42;
constexpr int kChildSeconds = 30;

struct ExpectedLeak {
  const char *file;
  int line;
  std::string text;
};

// What the running case has announced, and what its shutdown has said.
std::vector<ExpectedLeak> expected_leaks;
std::string shutdown_reports;

void CollectReport(const char *report) {
  shutdown_reports += report;
}

class KernelCase : public testing::Test {
 public:
  explicit KernelCase(const tarn_case *c) : case_(c) {}

  void TestBody() override {
    if (testing::UnitTest::GetInstance()->test_to_run_count() == 1)
      Run();
    else
      RunInChild();
  }

 private:
  // The child prints its failures itself.
  void RunInChild() {
    std::fflush(nullptr);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      Run();
      std::exit(HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "the wait status of the case's process";
  }

  void Run() {
    uk_boot_options options = {};
    options.root_type = "memfs";
    ASSERT_EQ(uk_boot(&options), 0);

    uk_cred root = {};
    root.pid = 1000;
    root.cap_effective = ~0u;
    uk_task *task = uk_task_new(&root);
    ASSERT_NE(task, nullptr);
    uk_task_enter(task);
    RunInTask();
    uk_task_leave();
    uk_task_put(task);
    ShutDown();
  }

  void RunInTask() {
    if (case_->with_module) {
      ASSERT_EQ(uk_module_load("tarn"), 0);
    }
    case_->run();
    uk_fault_arm(0);
    if (case_->with_module) {
      ASSERT_EQ(uk_module_unload("tarn"), 0);
    }
  }

  static void ShutDown() {
    if (expected_leaks.empty()) {
      EXPECT_EQ(uk_shutdown(), 0);
      return;
    }
    shutdown_reports.clear();
    uk_set_panic_handler(CollectReport);
    EXPECT_GT(uk_shutdown(), 0);
    uk_set_panic_handler(nullptr);
    for (const ExpectedLeak &leak : expected_leaks) {
      if (shutdown_reports.find(leak.text) == std::string::npos)
        ADD_FAILURE_AT(leak.file, leak.line)
            << "the shutdown does not say \"" << leak.text << "\" but:\n"
            << shutdown_reports;
    }
    expected_leaks.clear();
  }

  const tarn_case *case_;
};

int report_pipe = -1;

void SendReport(const char *report) {
  std::string text(report);
  for (size_t done = 0; done < text.size();) {
    const ssize_t n = write(report_pipe, text.data() + done, text.size() - done);
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  _exit(kReportExit);
}

std::string ReadAll(int fd) {
  std::string text;
  char buf[4096];
  for (ssize_t n; (n = read(fd, buf, sizeof(buf))) > 0;) text.append(buf, static_cast<size_t>(n));
  return text;
}

}  // namespace

extern "C" {

void host_case_failed(const char *file, int line, const char *text) {
  ADD_FAILURE_AT(file, line) << text;
}

void host_case_expect_leak(const char *file, int line, const char *text) {
  expected_leaks.push_back({file, line, text});
}

void host_case_expect_report(const char *file, int line, void (*body)(void), const char *text) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(fds[0]);
    report_pipe = fds[1];
    alarm(kChildSeconds);
    uk_set_panic_handler(SendReport);
    body();
    _exit(0);
  }
  close(fds[1]);
  const std::string report = ReadAll(fds[0]);
  close(fds[0]);
  int status = 0;
  waitpid(child, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != kReportExit)
    ADD_FAILURE_AT(file, line) << "no kernel report; wait status " << status
                               << ", expected: " << text;
  else if (report.find(text) == std::string::npos)
    ADD_FAILURE_AT(file, line) << "the report does not say \"" << text << "\" but:\n" << report;
}

}  // extern "C"

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  const tarn_case *const *cases = nullptr;
  const unsigned long count = uk_cases(&cases);
  for (unsigned long i = 0; i < count; i++) {
    const tarn_case *c = cases[i];
    testing::RegisterTest(c->suite, c->name, nullptr, nullptr, c->file, c->line,
                          [c]() -> testing::Test * { return new KernelCase(c); });
  }
  return RUN_ALL_TESTS();
}
