// SPDX-License-Identifier: GPL-2.0
#include "tarnd/process/guardian.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>

namespace tarnd {
namespace {

TEST(GuardianTest, that_it_was_killed_is_said_once_with_what_follows) {
  const auto started = Guardian::start();
  ASSERT_TRUE(started);
  Guardian &guardian = **started;
  pid_t child = 0;
  std::ifstream("/proc/self/task/" + std::to_string(getpid()) + "/children") >> child;
  ASSERT_GT(child, 0);

  testing::internal::CaptureStderr();
  guardian.watch("/mnt/a");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

  ASSERT_EQ(kill(child, SIGKILL), 0);
  siginfo_t ended{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT), 0);
  testing::internal::CaptureStderr();
  guardian.watch("/mnt/b");
  guardian.forget("/mnt/b");
  const std::string said = testing::internal::GetCapturedStderr();
  // The reason depends on how much it had read.
  EXPECT_TRUE(said.starts_with("tarnd: the guardian (process " + std::to_string(child) +
                               ") does not listen any more: "))
      << said;
  EXPECT_TRUE(said.ends_with(
      "; should tarnd be killed, programs may wait on its mounts until 'umount -f' ends that; "
      "restart tarnd to have a guardian\n"))
      << said;
  EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
}

}  // namespace
}  // namespace tarnd
