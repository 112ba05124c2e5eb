// SPDX-License-Identifier: GPL-2.0
// What a machine says of a configuration. The tables of mounts are made up, the directories are
// not.
#include "mirrord/config/config.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <fmt/format.h>

#include "tests/replicate/fake_tarnd.h"

namespace tarn {
namespace {

using namespace test;
namespace fs = std::filesystem;

class ConfigCheckTest : public testing::Test {
 protected:
  ConfigCheckTest() {
    for (const char *name : {"a", "a/sub", "b", "ta", "tb", "mnt", "mnt/sub"})
      fs::create_directory(dir_ / name);
    config_.file = "F";
    config_.state_directory = dir_ / "state";
    config_.control_socket = dir_ / "m.sock";
    config_.sources = {source("a", {"ta"}, 10), source("b", {"tb"}, 20)};
  }

  SourceConfig source(const std::string &name, const std::vector<std::string> &targets, int line) {
    SourceConfig source{.name = "s", .directory = dir_ / name, .line = line};
    for (const std::string &target : targets)
      source.targets.push_back({.name = "t", .directory = dir_ / target, .line = ++line});
    return source;
  }

  /* All problems, a line each, the test's directory as D. */
  std::string problems(const std::string &table = "") {
    std::string text;
    std::string full = table;
    replace(full, "D/", dir_.path() + "/");
    const auto mounts = read_mount_table(full);
    for (const Error &problem : config_problems(config_, mounts)) text += problem.text + "\n";
    const auto checked = check_config(config_, mounts);
    EXPECT_EQ(checked.ok(), text.empty());
    if (!checked) {
      EXPECT_TRUE(text.starts_with(checked.error().text + "\n"));
      EXPECT_EQ(checked.error().code, -EINVAL);
    }
    return shortened(text);
  }
  std::string notes() {
    std::string text;
    for (const std::string &note : config_notes(config_)) text += note + "\n";
    return shortened(text);
  }
  std::string shortened(std::string text) {
    replace(text, dir_.path(), "D");
    return text;
  }
  static void replace(std::string &text, const std::string &old, const std::string &by) {
    for (std::size_t at = 0; (at = text.find(old, at)) != std::string::npos; at += by.size())
      text.replace(at, old.size(), by);
  }

  TemporaryDirectory dir_;
  Config config_;
};

TEST_F(ConfigCheckTest, directories_that_are_apart_are_good) {
  EXPECT_EQ(problems(), "");
  EXPECT_EQ(notes(), "");
}

TEST_F(ConfigCheckTest, a_source_that_is_not_there) {
  fs::remove_all(dir_ / "a");
  std::ofstream(dir_ / "file");
  config_.sources[1].directory = dir_ / "file";
  EXPECT_EQ(problems(),
            "F:10: the source D/a is no directory: No such file or directory; expected the lower "
            "directory of a mount\n"
            "F:20: the source D/file is no directory: Not a directory; expected the lower "
            "directory of a mount\n");
}

TEST_F(ConfigCheckTest, a_target_that_is_not_there_may_come) {
  fs::remove_all(dir_ / "ta");
  EXPECT_EQ(problems(), "");
  EXPECT_EQ(notes(),
            "F:11: the target D/ta is not there: No such file or directory; expected an existing "
            "directory: make it, or mount its file system\n");
  std::ofstream(dir_ / "ta");
  EXPECT_EQ(problems(), "F:11: the target D/ta is no directory; expected an existing one\n");
  EXPECT_EQ(notes(), "");
}

TEST_F(ConfigCheckTest, targets_inside_sources_and_sources_inside_targets) {
  const std::string end = ": it would be replicated into itself: choose another directory\n";
  config_.sources = {source("a", {"a/sub"}, 10)};
  EXPECT_EQ(problems(), "F:11: the target D/a/sub lies inside the source D/a" + end);
  config_.sources = {source("a/sub", {"a"}, 10)};
  EXPECT_EQ(problems(), "F:11: the target D/a contains the source D/a/sub" + end);
  config_.sources = {source("a", {"a"}, 10)};
  EXPECT_EQ(problems(), "F:11: the target D/a is the source D/a" + end);
  config_.sources = {source("a", {"ta"}, 10), source("b", {"a/sub"}, 20)};
  EXPECT_EQ(problems(), "F:21: the target D/a/sub lies inside the source D/a" + end)
      << "another source";
  config_.sources = {source("a", {"ta"}, 10), source("ta", {"tb"}, 20)};
  EXPECT_EQ(problems(), "F:11: the target D/ta is the source D/ta" + end) << "a chain";
}

TEST_F(ConfigCheckTest, overlaps_through_links_and_mounts) {
  const std::string end = ": it would be replicated into itself: choose another directory\n";
  fs::create_directory_symlink("a", dir_ / "link");
  config_.sources = {source("a", {"link/sub"}, 10)};
  EXPECT_EQ(problems(), "F:11: the target D/link/sub lies inside the source D/a" + end);
  config_.sources = {source("a", {"ta"}, 10)};
  EXPECT_EQ(problems("1 0 8:1 / / rw - ext4 /dev/x rw\n"
                     "2 1 8:1 D/a/sub D/ta rw - ext4 /dev/x rw\n"),
            "F:11: the target D/ta lies inside the source D/a" + end);
  config_.sources = {source("a", {"mnt/sub"}, 10)};
  EXPECT_EQ(problems("2 1 0:40 / D/mnt rw - fuse.tarn D/a rw\n"),
            "F:11: the target D/mnt/sub lies inside the source D/a" + end);
  config_.sources = {source("a", {"ta"}, 10), source("b", {"tb"}, 20)};
  EXPECT_EQ(problems("1 0 8:1 / / rw - ext4 /dev/x rw\n"
                     "2 1 8:1 D/ta D/tb rw - ext4 /dev/x rw\n"),
            "F:21: the target D/tb is the target D/ta; expected directories that are apart\n");
  EXPECT_EQ(problems("1 0 8:1 / / rw - ext4 /dev/x rw\n"
                     "2 1 8:1 D/tb D/ta/in rw - ext4 /dev/x rw\n"),
            "F:21: the target D/ta contains D/ta/in, a mount that shows the target D/tb; expected "
            "directories that are apart\n");
  EXPECT_EQ(problems("1 0 8:1 / / rw - ext4 /dev/x rw\n"
                     "2 1 8:1 D/ta D/tb/in rw - ext4 /dev/x rw\n"),
            "F:21: the target D/tb contains D/tb/in, a mount that shows the target D/ta; expected "
            "directories that are apart\n");
}

TEST_F(ConfigCheckTest, a_source_that_is_a_path_of_a_mount) {
  config_.sources = {source("mnt/sub", {"ta"}, 10)};
  EXPECT_EQ(problems("2 1 0:40 / D/mnt rw - fuse.tarn D/a rw\n"),
            "F:10: the source D/mnt/sub is a path of a mount of tarn; expected the lower directory "
            "D/a/sub\n");
  EXPECT_EQ(problems("2 1 0:40 /deep D/mnt rw - fuse.tarn D/a rw\n"),
            "F:10: the source D/mnt/sub is a path of a mount of tarn; expected the lower directory "
            "D/a/deep/sub\n");
  EXPECT_EQ(problems("2 1 0:40 / D/mnt rw - fuse.tarn D/mnt rw\n"), "")
      << "a mount over its own lower directory";
}

TEST_F(ConfigCheckTest, targets_are_apart) {
  config_.sources = {source("a", {"ta", "ta"}, 10)};
  EXPECT_EQ(problems(),
            "F:12: the target D/ta is the target D/ta; expected directories that are apart\n");
  fs::create_directory(dir_ / "ta/in");
  config_.sources = {source("a", {"ta"}, 10), source("b", {"ta/in"}, 20)};
  EXPECT_EQ(problems(),
            "F:21: the target D/ta/in lies inside the target D/ta; expected directories that are "
            "apart\n");
}

TEST_F(ConfigCheckTest, sources_are_apart_or_excluded) {
  config_.sources = {source("a", {"ta"}, 10), source("a/sub", {"tb"}, 20)};
  EXPECT_EQ(problems(),
            "F:20: the source D/a/sub lies inside the source D/a; expected one source with several "
            "targets, or an exclude\n");
  config_.sources[0].exclude = {dir_ / "a/sub"};
  EXPECT_EQ(problems(), "");
  std::swap(config_.sources[0], config_.sources[1]);
  EXPECT_EQ(problems(), "");
  config_.sources = {source("a", {"ta"}, 10), source("a", {"tb"}, 20)};
  EXPECT_EQ(problems(),
            "F:20: the source D/a is the source D/a; expected one source with several targets, or "
            "an exclude\n");
  config_.sources = {source("b", {"tb"}, 20), source("mnt", {"ta"}, 30)};
  EXPECT_EQ(problems("2 1 0:40 / D/mnt/sub rw - fuse.tarn D/b rw\n"), "")
      << "a mount of another source inside a source is skipped there";
}

TEST_F(ConfigCheckTest, its_own_files_lie_outside) {
  config_.state_directory = dir_ / "a/state";
  EXPECT_EQ(problems(),
            "F: the state directory D/a/state lies inside the source D/a; expected directories "
            "that are apart\n");
  config_.state_directory = dir_ / "tb";
  EXPECT_EQ(problems(),
            "F: the state directory D/tb is the target D/tb; expected directories that are "
            "apart\n");
  config_.state_directory = dir_.path();
  EXPECT_NE(problems().find("F: the state directory D contains the source D/a; "),
            std::string::npos);
  config_.state_directory = dir_ / "state";
  config_.metrics_file = dir_ / "ta/m.prom";
  config_.control_socket = dir_ / "tb/s";
  EXPECT_EQ(problems(),
            "F: the metrics' file D/ta/m.prom lies inside the target D/ta; expected it elsewhere\n"
            "F: the control socket D/tb/s lies inside the target D/tb; expected it elsewhere\n");
  config_.metrics_file = dir_ / "none/m.prom";
  config_.control_socket = dir_ / "s";
  EXPECT_EQ(problems(), "");
  EXPECT_EQ(notes(),
            "F: the metrics' file D/none/m.prom cannot be made: No such file or directory; "
            "expected an existing directory\n");
}

TEST_F(ConfigCheckTest, an_exclude_that_looks_like_a_pattern) {
  config_.sources[0].exclude = {dir_ / "a/none", dir_ / "a/*.tmp"};
  EXPECT_EQ(problems(),
            "F:10: the exclude D/a/*.tmp does not exist and looks like a pattern; expected the "
            "path of a directory or of a file\n");
  std::ofstream(dir_ / "a/*.tmp");
  EXPECT_EQ(problems(), "");
}

TEST_F(ConfigCheckTest, a_target_that_comes_is_looked_at_again) {
  fs::remove_all(dir_ / "ta");
  const auto checked = [&] {
    const auto apart = check_target(config_, config_.sources[0].targets[0], {});
    return apart ? "" : shortened(apart.error().text);
  };
  EXPECT_EQ(problems() + checked(), "");
  fs::create_directory_symlink("b", dir_ / "ta");
  EXPECT_EQ(checked(),
            "F:11: the target D/b is the source D/b: it would be replicated into itself: choose "
            "another directory");
  fs::remove(dir_ / "ta");
  fs::create_directory_symlink("tb", dir_ / "ta");
  EXPECT_EQ(checked(),
            "F:11: the target D/tb is the target D/tb; expected directories that are apart");
  fs::remove(dir_ / "ta");
  fs::create_directories(dir_ / "state/in");
  fs::create_directory_symlink("state/in", dir_ / "ta");
  EXPECT_EQ(checked(),
            "F: the state directory D/state contains the target D/state/in; expected directories "
            "that are apart");
  fs::remove(dir_ / "ta");
  fs::create_directory_symlink("ta", dir_ / "ta");
  EXPECT_EQ(checked(), "cannot resolve the path D/ta: Too many levels of symbolic links");
  fs::remove(dir_ / "ta");
  fs::create_directory(dir_ / "ta");
  EXPECT_EQ(checked(), "");
}

class CheckCommandTest : public ConfigCheckTest {
 protected:
  CheckCommandTest() {
    setenv("TARN_STATE_DIR", (dir_ / "var").c_str(), 1);
    setenv("TARN_RUN_DIR", (dir_ / "run").c_str(), 1);
  }
  ~CheckCommandTest() override {
    unsetenv("TARN_STATE_DIR");
    unsetenv("TARN_RUN_DIR");
  }
  /* "EXIT|OUT|ERR". */
  std::string check(const std::string &text) {
    std::ofstream(dir_ / "m.toml") << text;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int exit = check_command(dir_ / "m.toml");
    const std::string out = testing::internal::GetCapturedStdout();
    return shortened(fmt::format("{}|{}|{}", exit, out, testing::internal::GetCapturedStderr()));
  }
  std::string source_text(const std::string &target) {
    return fmt::format(
        "[[source]]\nname = 'a'\ndirectory = '{0}/a'\n"
        "[[source.target]]\nname = 'one'\ndirectory = '{0}/{1}'\n"
        "[[source.target]]\nname = 'two'\ndirectory = '{0}/tb'\n",
        dir_.path(), target);
  }
};

TEST_F(CheckCommandTest, says_all_that_is_wrong_or_that_it_is_good) {
  EXPECT_EQ(check(source_text("ta")), "0|D/m.toml: 1 sources, 2 targets: good\n|");
  EXPECT_EQ(
      check(source_text("ta") + "x = 1\n[log]\nlimit = 1\n"),
      "1||D/m.toml:10: [[source.target]] has no key x; expected one of kind, name, directory\n"
      "D/m.toml:12: limit 1 is too small; expected at least 64 MiB\n");
  EXPECT_EQ(check(source_text("a/sub")),
            "1||D/m.toml:4: the target D/a/sub lies inside the source D/a: it would be replicated "
            "into itself: choose another directory\n");
  EXPECT_EQ(check(source_text("none")),
            "1||D/m.toml:4: the target D/none is not there: No such file or directory; expected an "
            "existing directory: make it, or mount its file system\n");
  EXPECT_FALSE(fs::exists(dir_ / "var"));
  EXPECT_FALSE(fs::exists(dir_ / "run"));
}

}  // namespace
}  // namespace tarn
