// SPDX-License-Identifier: GPL-2.0
// The state directory: made, found again, and refused in every other case with nothing changed.
#include "mirrord/config/state_directory.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>

#include <fmt/format.h>

#include "tests/replicate/fake_tarnd.h"

namespace tarn {
namespace {

using namespace test;
namespace fs = std::filesystem;

class StateDirectoryTest : public testing::Test {
 protected:
  static std::string content(const std::string &file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  static unsigned mode(const std::string &path) {
    struct stat status;
    return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
  }
  /* Everything below the test's directory: path, mode and content. */
  std::map<std::string, std::string> everything() const {
    std::map<std::string, std::string> all;
    for (const auto &entry : fs::recursive_directory_iterator(dir_.path()))
      all[entry.path().string()] =
          fmt::format("{:o} {}", mode(entry.path().string()),
                      entry.is_regular_file() ? content(entry.path().string()) : "");
    return all;
  }
  /* The error, after which all is as before. */
  Error refused(const std::string &path) const {
    const auto before = everything();
    const auto state = StateDirectory::open(path);
    EXPECT_EQ(everything(), before);
    EXPECT_FALSE(state.ok());
    if (state) return {};
    std::string text = state.error().text;
    EXPECT_EQ(text.find('\n'), std::string::npos);
    for (std::size_t at; (at = text.find(dir_.path())) != std::string::npos;)
      text.replace(at, dir_.path().size(), "D");
    return {state.error().code, text};
  }
  void make() const { ASSERT_TRUE(StateDirectory::open(state_).ok()); }
  /* Runs it as another user, in a process of its own; its result. */
  template <class F>
  static int as_nobody(F run) {
    const pid_t child = fork();
    if (child == 0) _exit(setgid(65534) == 0 && setuid(65534) == 0 ? run() : 99);
    int status = 0;
    waitpid(child, &status, 0);
    return WEXITSTATUS(status);
  }

  TemporaryDirectory dir_;
  const std::string state_ = dir_ / "x/y/state";
};

TEST_F(StateDirectoryTest, made_and_found_again) {
  {
    const auto state = StateDirectory::open(state_ + "/");
    ASSERT_TRUE(state.ok()) << state.error().text;
    EXPECT_EQ(state->path(), state_);
    EXPECT_EQ(mode(state_), 0700u);
    EXPECT_EQ(mode(dir_ / "x/y"), 0755u);
    EXPECT_EQ(content(state_ + "/VERSION"), "tarn mirrord state 1\n");
    EXPECT_EQ(content(state_ + "/LOCK"), fmt::format("{}\n", getpid()));
    EXPECT_EQ(*state->source("data"), state_ + "/data");
    std::ofstream(state_ + "/data/f") << "kept";
  }
  const auto state = StateDirectory::open(state_);
  ASSERT_TRUE(state.ok()) << state.error().text;
  EXPECT_EQ(*state->source("data"), state_ + "/data");
  EXPECT_EQ(content(state_ + "/data/f"), "kept");
  EXPECT_EQ(mode(state_ + "/data"), 0700u);
}

TEST_F(StateDirectoryTest, an_empty_directory_is_begun_in) {
  for (const char *left : {"", "LOCK", "VERSION.new"}) {
    fs::remove_all(state_);
    fs::create_directories(state_);
    fs::permissions(state_, fs::perms::owner_all);
    if (*left) std::ofstream(state_ + "/" + left) << "t";
    const auto state = StateDirectory::open(state_);
    ASSERT_TRUE(state.ok()) << state.error().text;
    EXPECT_EQ(content(state_ + "/VERSION"), "tarn mirrord state 1\n") << "left: " << left;
    EXPECT_FALSE(fs::exists(state_ + "/VERSION.new"));
  }
}

TEST_F(StateDirectoryTest, one_service_at_a_time) {
  auto state = StateDirectory::open(state_);
  ASSERT_TRUE(state.ok());
  const Error error = refused(state_);
  EXPECT_EQ(error.code, -EBUSY);
  EXPECT_EQ(error.text,
            fmt::format("another mirrord (process {}) uses the state directory D/x/y/state: end it "
                        "first, or name another directory for this one",
                        getpid()));
  StateDirectory moved = std::move(*state);
  EXPECT_EQ(refused(state_).code, -EBUSY);
  EXPECT_EQ(moved.path(), state_);
}

TEST_F(StateDirectoryTest, the_lock_goes_with_a_killed_process) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  if (child == 0) {
    const auto state = StateDirectory::open(state_);
    if (!state || write(ready[1], "x", 1) != 1) _exit(1);
    for (;;) pause();
  }
  char byte;
  close(ready[1]);
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  close(ready[0]);
  EXPECT_NE(refused(state_).text.find(fmt::format("(process {})", child)), std::string::npos);
  kill(child, SIGKILL);
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  EXPECT_TRUE(StateDirectory::open(state_).ok());
}

TEST_F(StateDirectoryTest, many_at_once_and_one_has_it) {
  constexpr int kProcesses = 12;
  for (int round = 0; round < 10; ++round) {
    fs::remove_all(dir_ / "x");
    int go[2], end[2], result[2];
    ASSERT_TRUE(pipe(go) == 0 && pipe(end) == 0 && pipe(result) == 0);
    for (int n = 0; n < kProcesses; ++n) {
      if (fork() != 0) continue;
      close(go[1]);
      close(end[1]);
      char byte;
      if (read(go[0], &byte, 1) != 0) _exit(2);
      const auto state = StateDirectory::open(state_);
      const char code = state ? 'y' : state.error().code == -EBUSY ? 'b' : '?';
      if (write(result[1], &code, 1) != 1 || read(end[0], &byte, 1) != 0) _exit(2);
      _exit(0);
    }
    close(go[0]);
    close(go[1]);
    std::string results;
    char byte;
    while (results.size() < kProcesses && read(result[0], &byte, 1) == 1) results += byte;
    for (const int fd : {end[0], end[1], result[0], result[1]}) close(fd);
    for (int n = 0; n < kProcesses; ++n) wait(nullptr);
    EXPECT_EQ(std::count(results.begin(), results.end(), 'y'), 1) << results;
    EXPECT_EQ(std::count(results.begin(), results.end(), 'b'), kProcesses - 1) << results;
    EXPECT_EQ(content(state_ + "/VERSION"), "tarn mirrord state 1\n");
  }
}

TEST_F(StateDirectoryTest, another_version) {
  make();
  std::ofstream(state_ + "/VERSION") << "tarn mirrord state 2\n";
  const Error error = refused(state_);
  EXPECT_EQ(error.code, -EBADMSG);
  EXPECT_EQ(error.text,
            "the state directory D/x/y/state is of version 2 and this mirrord knows version 1: run "
            "the mirrord that made it, or name another directory");
}

TEST_F(StateDirectoryTest, a_damaged_version) {
  make();
  const std::string whole = "tarn mirrord state 1\n";
  for (std::size_t cut = 0; cut < whole.size(); ++cut) {
    std::ofstream(state_ + "/VERSION") << whole.substr(0, cut);
    EXPECT_EQ(refused(state_).code, -EBADMSG) << cut;
  }
  for (std::size_t at = 0; at < whole.size(); ++at) {
    for (const int mask : {1, 2, 4, 8, 16, 32, 64, 128}) {
      std::string damaged = whole;
      damaged[at] = static_cast<char>(damaged[at] ^ mask);
      std::ofstream(state_ + "/VERSION") << damaged;
      EXPECT_EQ(refused(state_).code, -EBADMSG) << at << " ^ " << mask;
    }
  }
  std::ofstream(state_ + "/VERSION") << "something\nelse";
  EXPECT_EQ(refused(state_).text,
            "the state directory D/x/y/state is damaged or none of mirrord: its VERSION says "
            "\"something\\nelse\"; restore it, or name another directory");
  for (const char *bad :
       {"tarn mirrord state 1", "tarn mirrord state 01\n", "tarn mirrord state 1 \n",
        "tarn mirrord state -1\n", "tarn mirrord state \n", "tarn mirrord state 99999999999\n"}) {
    std::ofstream(state_ + "/VERSION") << bad;
    EXPECT_EQ(refused(state_).code, -EBADMSG) << bad;
  }
}

TEST_F(StateDirectoryTest, files_of_somebody_else) {
  fs::create_directories(state_);
  fs::permissions(state_, fs::perms::owner_all);
  std::ofstream(state_ + "/precious") << "data";
  const Error error = refused(state_);
  EXPECT_EQ(error.code, -EBADMSG);
  EXPECT_EQ(error.text,
            "the state directory D/x/y/state is none of mirrord: it holds files and no VERSION; "
            "name an empty or a new directory");
}

TEST_F(StateDirectoryTest, no_directory) {
  fs::create_directories(dir_ / "x/y");
  std::ofstream(state_) << "file";
  EXPECT_EQ(refused(state_).text, "cannot open the state directory D/x/y/state: Not a directory");
  EXPECT_EQ(refused(state_ + "/below").code, -ENOTDIR);
  fs::remove(state_);
  fs::create_symlink("nowhere", state_);
  EXPECT_EQ(refused(state_).code, -ENOENT);
  EXPECT_EQ(refused("x/state").text,
            "the state directory x/state is not absolute: begin it with '/'");
  EXPECT_EQ(refused("").code, -EINVAL);
}

TEST_F(StateDirectoryTest, open_to_others) {
  make();
  fs::permissions(state_, fs::perms(0750));
  const Error error = refused(state_);
  EXPECT_EQ(error.code, -EPERM);
  EXPECT_EQ(error.text,
            "the state directory D/x/y/state is open to others, its mode is 0750: look what they "
            "have done there, then give it mode 0700");
}

TEST_F(StateDirectoryTest, another_users) {
  if (geteuid() != 0) GTEST_SKIP() << "only root gives directories away";
  make();
  ASSERT_EQ(chown(state_.c_str(), 65534, 65534), 0);
  const Error error = refused(state_);
  EXPECT_EQ(error.code, -EPERM);
  EXPECT_EQ(error.text,
            "the state directory D/x/y/state belongs to user 65534 and mirrord runs as user 0: run "
            "it as that user, or name another directory");
}

TEST_F(StateDirectoryTest, where_nothing_may_be_made_nothing_is_left) {
  if (geteuid() != 0) GTEST_SKIP() << "only root becomes another user";
  fs::permissions(dir_.path(), fs::perms(0755));
  const auto before = everything();
  EXPECT_EQ(as_nobody([&] {
              const auto state = StateDirectory::open(state_);
              return !state && state.error().code == -EACCES ? 0 : 1;
            }),
            0);
  EXPECT_EQ(everything(), before);
}

TEST_F(StateDirectoryTest, what_was_begun_is_taken_back) {
  // The last step fails: VERSION cannot be renamed into its place.
  fs::create_directories(state_ + "/VERSION.new");
  fs::permissions(state_, fs::perms::owner_all);
  const Error error = refused(state_);
  EXPECT_EQ(error.code, -EISDIR);
}

TEST_F(StateDirectoryTest, a_lock_that_is_no_file) {
  make();
  fs::remove(state_ + "/LOCK");
  fs::create_symlink(dir_ / "victim", state_ + "/LOCK");
  EXPECT_EQ(refused(state_).code, -ELOOP);
  fs::remove(state_ + "/LOCK");
  fs::create_directory(state_ + "/LOCK");
  EXPECT_EQ(refused(state_).code, -EISDIR);
}

TEST_F(StateDirectoryTest, names_of_sources) {
  const auto state = StateDirectory::open(state_);
  ASSERT_TRUE(state.ok());
  for (const std::string bad : {"", ".", "..", "../x", "a/b", "LOCK", "A", "-a", "a b"})
    EXPECT_EQ(state->source(bad).error().code, -EINVAL) << bad;
  std::ofstream(state_ + "/file");
  EXPECT_EQ(state->source("file").error().code, -ENOTDIR);
  fs::create_directory_symlink(dir_.path(), state_ + "/link");
  EXPECT_EQ(state->source("link").error().code, -ENOTDIR);
}

}  // namespace
}  // namespace tarn
