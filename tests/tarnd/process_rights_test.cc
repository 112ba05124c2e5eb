// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/process_rights.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <iterator>
#include <string>

namespace tarnd {
namespace {

TEST(ProcessRights, are_read_from_its_status) {
  const ProcessRights rights = parse_status(
      "Name:\tGroups: 5\nUid:\t1\t2\t3\t4\nGroups:\t7 42 4294967294 \nCapInh:\t00000000ffffffff\n"
      "CapPrm:\t000001ffffffffff\nCapEff:\t0000018000000406\nSeccomp:\t0\n");
  EXPECT_EQ(rights.groups, (std::vector<unsigned>{7, 42, 4294967294u}));
  EXPECT_EQ(rights.capabilities, 0x406u);
}

TEST(ProcessRights, are_none_where_nothing_is_told) {
  EXPECT_EQ(parse_status(""), ProcessRights());
  EXPECT_EQ(parse_status("Name:\tx\nGroups:\t\nCapEff:\n"), ProcessRights());
}

TEST(ProcessRights, of_this_program_are_its_own) {
  std::vector<gid_t> groups(static_cast<size_t>(getgroups(0, nullptr)));
  groups.resize(static_cast<size_t>(getgroups(static_cast<int>(groups.size()), groups.data())));
  std::sort(groups.begin(), groups.end());
  const ProcessRights rights = process_rights(getpid());
  EXPECT_EQ(rights.groups, groups);
  EXPECT_EQ(rights.capabilities != 0, geteuid() == 0);
}

// A process that has ended, and one that is root in a user name space of its own.
TEST(ProcessRights, of_others_are_theirs_here) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t pid = fork();
  if (pid == 0) {
    const char ok = unshare(CLONE_NEWUSER) == 0;
    if (write(ready[1], &ok, 1) == 1) pause();
    _exit(0);
  }
  char made = 0;
  ASSERT_EQ(read(ready[0], &made, 1), 1);
  const ProcessRights rights = process_rights(pid);
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  EXPECT_EQ(process_rights(pid), ProcessRights());
  close(ready[0]);
  close(ready[1]);
  if (!made) GTEST_SKIP() << "no user name space can be made here";
  EXPECT_EQ(rights.capabilities, 0u);
}

// Runs `check` for a process in a user name space of its own, with `map` as its
// map of users and groups. False where none can be made.
template <typename Check>
bool with_user_namespace(const char *map, Check check) {
  int ready[2];
  if (pipe(ready) != 0) return false;
  const pid_t pid = fork();
  if (pid == 0) {
    const char ok = unshare(CLONE_NEWUSER) == 0;
    if (write(ready[1], &ok, 1) == 1) pause();
    _exit(0);
  }
  char made = 0;
  if (read(ready[0], &made, 1) != 1) made = 0;
  if (made) {
    const std::string proc = "/proc/" + std::to_string(pid);
    std::ofstream(proc + "/uid_map") << map << std::flush;
    std::ofstream(proc + "/gid_map") << map << std::flush;
    check(pid);
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  close(ready[0]);
  close(ready[1]);
  return made;
}

TEST(ProcessRights, count_in_a_user_name_space_with_our_users) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can map all users";
  std::ifstream own("/proc/self/uid_map");
  const std::string all((std::istreambuf_iterator<char>(own)), {});
  const auto capable = [](pid_t pid) { return process_rights(pid).capabilities != 0; };
  bool same = false, other = true;
  const bool made = with_user_namespace(all.c_str(), [&](pid_t pid) { same = capable(pid); }) &&
                    with_user_namespace("0 0 1\n", [&](pid_t pid) { other = capable(pid); });
  if (!made) GTEST_SKIP() << "no user name space can be made here";
  EXPECT_TRUE(same);
  EXPECT_FALSE(other);
}

}  // namespace
}  // namespace tarnd
