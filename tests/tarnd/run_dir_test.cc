// SPDX-License-Identifier: GPL-2.0
#include "tarnd/process/run_dir.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "module/os_public/Include/ox_ctl.h"

namespace tarnd {
namespace {

namespace fs = std::filesystem;
using tarn::Result;
using tarn::UniqueFd;

class RunDirTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "tarnd_test.XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    base_ = pattern;
  }
  void TearDown() override { fs::remove_all(base_); }

  static mode_t mode_of(const fs::path &path) {
    struct stat st {};
    EXPECT_EQ(lstat(path.c_str(), &st), 0) << path;
    return st.st_mode & 07777;
  }

  static RunDir opened(const fs::path &path) {
    auto dir = RunDir::open(path);
    if (!dir) throw std::runtime_error(dir.error().text);
    return std::move(*dir);
  }
  static UniqueFd listening(const RunDir &dir, const char *name) {
    auto listener = dir.listen(name);
    if (!listener) throw std::runtime_error(listener.error().text);
    return std::move(*listener);
  }

  fs::path base_;
};

TEST_F(RunDirTest, is_created_with_its_mode) {
  const RunDir dir = opened(base_ / "a/run");
  EXPECT_EQ(mode_of(base_ / "a/run"), geteuid() == 0 ? 0755u : 0700u);
}

// tarnd's own mask is empty.
TEST_F(RunDirTest, nobody_else_may_write_to_its_parents_or_its_files) {
  const mode_t before = umask(0);
  const RunDir dir = opened(base_ / "a/b/run");
  ASSERT_TRUE(dir.write_pid_file());
  umask(before);
  EXPECT_EQ(mode_of(base_ / "a"), 0755u);
  EXPECT_EQ(mode_of(base_ / "a/b"), 0755u);
  EXPECT_EQ(mode_of(dir.file(OX_CTL_PID_FILE)), 0644u);
}

TEST_F(RunDirTest, a_process_id_file_of_somebody_else_is_replaced) {
  const RunDir dir = opened(base_ / "run");
  std::ofstream other(dir.file(OX_CTL_PID_FILE));
  other << "1\n" << std::flush;
  ASSERT_TRUE(dir.write_pid_file());
  other << "1\n" << std::flush;
  std::ifstream in(dir.file(OX_CTL_PID_FILE));
  std::string text((std::istreambuf_iterator<char>(in)), {});
  EXPECT_EQ(text, std::to_string(getpid()) + "\n");
}

TEST_F(RunDirTest, says_which_parent_cannot_be_made) {
  const auto dir = RunDir::open("/proc/absent/a/run");
  ASSERT_FALSE(dir);
  EXPECT_TRUE(dir.error().text.starts_with("cannot create directory /proc/absent: "))
      << dir.error().text;
}

TEST_F(RunDirTest, is_held_by_one_at_a_time) {
  {
    const RunDir dir = opened(base_ / "run");
    EXPECT_EQ(RunDir::open(base_ / "run").error().code, -EBUSY);
  }
  EXPECT_TRUE(RunDir::open(base_ / "run"));
}

TEST_F(RunDirTest, refuses_what_is_no_directory_of_its_own) {
  std::ofstream(base_ / "file").put('x');
  EXPECT_EQ(RunDir::open(base_ / "file").error().code, -ENOTDIR);
  fs::create_directory(base_ / "real");
  fs::create_symlink(base_ / "real", base_ / "link");
  EXPECT_EQ(RunDir::open(base_ / "link").error().code, -ENOTDIR);
}

TEST_F(RunDirTest, sockets_replace_stale_ones_and_take_everybody) {
  const RunDir dir = opened(base_ / "run");
  { const UniqueFd stale = listening(dir, OX_CTL_SOCKET); }
  const UniqueFd listener = listening(dir, OX_CTL_SOCKET);
  EXPECT_EQ(mode_of(dir.file(OX_CTL_SOCKET)), 0666u);

  const UniqueFd client(socket(AF_UNIX, SOCK_SEQPACKET, 0));
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  const std::string path = dir.file(OX_CTL_SOCKET);
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  EXPECT_EQ(connect(client.get(), reinterpret_cast<sockaddr *>(&addr), sizeof(addr)), 0);
}

TEST_F(RunDirTest, long_paths_hold_sockets) {
  const RunDir dir = opened(base_ / std::string(150, 'x'));
  EXPECT_TRUE(dir.listen(OX_CTL_SOCKET));
  EXPECT_TRUE(fs::exists(dir.file(OX_CTL_SOCKET)));
}

TEST_F(RunDirTest, clean_removes_what_clients_look_for) {
  const RunDir dir = opened(base_ / "run");
  const UniqueFd control = listening(dir, OX_CTL_SOCKET);
  const UniqueFd daemon = listening(dir, OX_CTL_DAEMON_SOCKET);
  ASSERT_TRUE(dir.write_pid_file());
  std::ifstream in(dir.file(OX_CTL_PID_FILE));
  pid_t pid = 0;
  in >> pid;
  EXPECT_EQ(pid, getpid());
  dir.clean();
  EXPECT_FALSE(fs::exists(dir.file(OX_CTL_SOCKET)));
  EXPECT_FALSE(fs::exists(dir.file(OX_CTL_DAEMON_SOCKET)));
  EXPECT_FALSE(fs::exists(dir.file(OX_CTL_PID_FILE)));
}

}  // namespace
}  // namespace tarnd
