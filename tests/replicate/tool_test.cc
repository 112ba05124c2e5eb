// SPDX-License-Identifier: GPL-2.0
// The tool as a user types it, served by the stand-in.
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "client/workdir.h"
#include "tests/replicate/fake_tarnd.h"
#include "tests/replicate/run_program.h"

namespace tarn {
namespace {

using namespace test;
namespace fs = std::filesystem;
using nlohmann::json;
using Words = std::vector<std::string>;

constexpr char kUuid[] = "01234567-89AB-CDEF-0123-456789ABCDEF";

class ToolTest : public testing::Test {
 protected:
  Ended tarn(const Words &arguments) { return run(TARN_PROGRAM, arguments, environment_); }
  void good(const Words &arguments, const std::string &out) {
    const Ended ended = tarn(arguments);
    EXPECT_EQ(ended.exit, 0) << ended.err;
    EXPECT_EQ(ended.out, out);
    // Most of the directories are only names here.
    EXPECT_TRUE(ended.err.empty() || ended.err.ends_with(" does not exist\n")) << ended.err;
  }
  void bad(const Words &arguments, int exit, const std::string &text) {
    const Ended ended = tarn(arguments);
    EXPECT_EQ(ended.exit, exit) << ended.err;
    EXPECT_EQ(ended.out, "");
    EXPECT_TRUE(ended.err.starts_with("tarn: ")) << ended.err;
    EXPECT_NE(ended.err.find(text), std::string::npos) << ended.err;
    EXPECT_EQ(std::count(ended.err.begin(), ended.err.end(), '\n'), 1) << ended.err;
  }

  TemporaryDirectory dir_;
  FakeTarnd fake_{dir_ / "run"};
  const Words environment_ = {"TARN_RUN_DIR=" + fake_.run_dir()};
};

TEST_F(ToolTest, rules_from_add_to_flush) {
  fs::create_directory(dir_ / "d");
  good({"rule", "add", kUuid, "--include", dir_ / "d", "/b", "--exclude", dir_ / "d/x"}, "");
  good({"rule", "list"},
       std::string(kUuid) + " +/b +" + (dir_ / "d") + " -" + (dir_ / "d/x") + "\n");
  good({"rule", "show", "01234567-89ab-cdef-0123-456789abcdef"},
       std::string("rule ") + kUuid + "\n  include /b\n  include " + (dir_ / "d") + "\n  exclude " +
           (dir_ / "d/x") + "\n");
  bad({"rule", "add", kUuid, "--include", "/c"}, 1, "exists already");
  const Ended made = tarn({"rule", "add", "--include", "/c"});
  EXPECT_EQ(made.exit, 0);
  ASSERT_EQ(made.out.size(), 37u);
  const std::string uuid = made.out.substr(0, 36);
  EXPECT_TRUE(parse_uuid(uuid));
  good({"rule", "del", uuid}, "");
  bad({"rule", "del", uuid}, 1, uuid);
  bad({"rule", "show", uuid}, 1, uuid);
  good({"rule", "flush"}, "");
  good({"rule", "list"}, "");
}

TEST_F(ToolTest, rules_as_json) {
  good({"rule", "list", "--json"}, "[]\n");
  good({"rule", "add", kUuid, "--include", "/a b", "/\xff"}, "");
  const json rules = json::parse(tarn({"rule", "list", "--json"}).out);
  ASSERT_EQ(rules.size(), 1u);
  EXPECT_EQ(rules[0]["uuid"], kUuid);
  EXPECT_EQ(rules[0]["include"], json::parse(R"(["/a b", {"base64": "L/8="}])"));
  EXPECT_EQ(json::parse(tarn({"rule", "show", kUuid, "--json"}).out), rules[0]);
}

TEST_F(ToolTest, any_directory_can_be_named) {
  const Words names = {"[a,b]", "{}", "%%", "a,b", " ", "a\nb", "\xff\xfe", "a=b", "!x"};
  Words arguments = {"rule", "add", kUuid, "--include"}, expected;
  for (const std::string &name : names) {
    arguments.push_back("/" + name);
    expected.push_back("/" + name);
  }
  good(arguments, "");
  std::sort(expected.begin(), expected.end());
  const std::string workdir =
      fake_.with([](auto &state) { return std::string(state.rules[0].c_str() + 16); });
  EXPECT_EQ(read_workdir(workdir).directories.include, expected);
}

TEST_F(ToolTest, directories_are_made_absolute_and_real) {
  fs::create_directory(dir_ / "real");
  fs::create_directory_symlink("real", dir_ / "link");
  good({"rule", "add", kUuid, "--include", (dir_ / "link/../link/sub/")}, "");
  EXPECT_EQ(tarn({"rule", "list"}).out, std::string(kUuid) + " +" + (dir_ / "real/sub") + "\n");
}

TEST_F(ToolTest, which_rules_include_a_path) {
  const std::string other = "76543210-89AB-CDEF-0123-456789ABCDEF";
  const auto test = [&](const std::string &path) { return tarn({"rule", "test", path}); };
  Ended ended = test("/d/x");
  EXPECT_EQ(ended.exit, 1) << ended.err;
  EXPECT_EQ(ended.out, "there is no rule\n");
  good({"rule", "add", kUuid, "--include", "/d", "/d/x/y", "--exclude", "/d/x/y/z", "/d/e"}, "");
  good({"rule", "add", other, "--include", "/d/e f"}, "");
  const auto lines = [&](const std::string &first, const std::string &second) {
    return std::string(kUuid) + " " + first + "\n" + other + " " + second + "\n";
  };
  const std::string none = "lists neither the path nor a directory above it";
  good({"rule", "test", "/d/x"}, lines("includes it by +/d", none));
  good({"rule", "test", "/d/x/y/f"}, lines("includes it by +/d/x/y", none));
  good({"rule", "test", "/d/e f/g"}, lines("includes it by +/d", "includes it by +\"/d/e f\""));
  ended = test("/d/x/y/z/");
  EXPECT_EQ(ended.exit, 1) << ended.err;
  EXPECT_EQ(ended.out, lines("excludes it by -/d/x/y/z", none));
  ended = test("/dd");
  EXPECT_EQ(ended.exit, 1) << ended.err;
  EXPECT_EQ(ended.out, lines(none, none));
  const Ended excluded = tarn({"rule", "test", "/d/e", "--json"});
  EXPECT_EQ(excluded.exit, 1) << excluded.err;
  EXPECT_EQ(json::parse(excluded.out), json::parse(R"({"path": "/d/e", "included": false, "rules": [
      {"uuid": "01234567-89AB-CDEF-0123-456789ABCDEF", "included": false,
       "entry": {"exclude": "/d/e"}},
      {"uuid": "76543210-89AB-CDEF-0123-456789ABCDEF", "included": false, "entry": null}]})"));
  bad({"rule", "test"}, 2, "PATH");
  bad({"rule", "test", ""}, 2, "empty");
  fake_.with([](auto &state) { state.forced_result = -EPERM; });
  bad({"rule", "test", "/d"}, 2, "not permitted");
}

TEST_F(ToolTest, an_entry_that_the_module_does_not_apply_is_named) {
  good({"rule", "add", kUuid, "--include", "/a", "/a/b/c", "--exclude", "/a/b"}, "");
  good({"rule", "test", "/a/b/f"},
       std::string(kUuid) +
           " includes it by +/a\n"
           "  and not by -/a/b, which is listed after a directory inside it: the module does not "
           "apply such an entry to all that is below\n");
  const Ended ended = tarn({"rule", "test", "/a/b/f", "--json"});
  EXPECT_EQ(json::parse(ended.out)["rules"][0]["ineffective"],
            json::parse(R"({"exclude": "/a/b"})"));
}

TEST_F(ToolTest, a_path_of_the_mount_is_tested_by_its_lower_path) {
  fs::create_directory(dir_ / "lower");
  fs::create_directory(dir_ / "mnt");
  good({"mount", dir_ / "lower", dir_ / "mnt"}, "");
  good({"rule", "add", kUuid, "--include", dir_ / "lower"}, "");
  good({"rule", "test", dir_ / "mnt/x"},
       (dir_ / "mnt/x") + " is a path of a mount: its lower path is " + (dir_ / "lower/x") + "\n" +
           kUuid + " includes it by +" + (dir_ / "lower") + "\n");
  const json tested = json::parse(tarn({"rule", "test", dir_ / "mnt/x", "--json"}).out);
  EXPECT_EQ(tested["path"], dir_ / "lower/x");
  EXPECT_EQ(tested["mount_path"], dir_ / "mnt/x");
}

TEST_F(ToolTest, replicated_directories_and_the_daemons_program) {
  const auto directory = [&](std::size_t n) {
    return fake_.with(
        [&](auto &state) { return std::string(state.directories.at(n).c_str() + 16); });
  };
  fs::create_directory(dir_ / "real");
  fs::create_directory_symlink("real", dir_ / "link");
  good({"dir", "add", dir_ / "link", kUuid}, "");
  EXPECT_EQ(directory(0), dir_ / "real");
  bad({"dir", "add", "/other", kUuid}, 1, "exists already");
  const Ended made = tarn({"dir", "add", "/other"});
  EXPECT_EQ(made.exit, 0) << made.err;
  EXPECT_TRUE(parse_uuid(made.out.substr(0, 36))) << made.out;
  EXPECT_EQ(directory(1), "/other");
  bad({"dir", "add", "/other", "12"}, 2, "12 is not a UUID");
  const std::string part = "/" + std::string(200, 'x');
  bad({"dir", "add", part + part + part}, 1, "at most 511 bytes");
  good({"dir", "del", kUuid}, "");
  bad({"dir", "del", kUuid}, 1, "does not exist");
  good({"dir", "flush"}, "");
  EXPECT_EQ(fake_.with([](auto &state) { return state.directories.size(); }), 0u);
  good({"dir", "daemon", dir_ / "link/../real/mirrord"}, "");
  EXPECT_EQ(fake_.with([](auto &state) { return state.daemon_path; }), dir_ / "real/mirrord");
  bad({"dir", "daemon", ""}, 1, "empty");
}

TEST_F(ToolTest, a_path_of_the_mount_is_noticed) {
  fs::create_directory(dir_ / "lower");
  fs::create_directory(dir_ / "mnt");
  good({"mount", dir_ / "lower", dir_ / "mnt"}, "");
  const Ended ended = tarn({"rule", "add", kUuid, "--include", dir_ / "mnt/x"});
  EXPECT_EQ(ended.exit, 0);
  EXPECT_NE(ended.err.find("you may have meant " + (dir_ / "lower/x")), std::string::npos)
      << ended.err;
}

TEST_F(ToolTest, a_directory_that_is_not_there_is_noticed) {
  fs::create_directory(dir_ / "here");
  const Ended ended =
      tarn({"rule", "add", kUuid, "--include", dir_ / "here", dir_ / "absent", "--exclude", "/x"});
  EXPECT_EQ(ended.exit, 0);
  EXPECT_EQ(ended.err, "tarn: note: the directory " + (dir_ / "absent") + " does not exist\n");
}

TEST_F(ToolTest, wrong_command_lines) {
  bad({}, 2, "tarn --help");
  bad({"nonsense"}, 2, "nonsense is not known here: 'tarn --help'");
  bad({"rule", "lst"}, 2, "lst is not known here");
  bad({"rule", "add", "--inclde", "/a"}, 2, "--inclde is not known here");
  bad({"rule"}, 2, "tarn --help");
  bad({"rule", "add"}, 2, "--include");
  bad({"rule", "add", "--include"}, 2, "--include");
  bad({"rule", "add", kUuid, "--exclude", "/a"}, 2, "--include");
  bad({"rule", "add", "12", "--include", "/a"}, 2, "12 is not a UUID");
  bad({"rule", "del"}, 2, "UUID");
  bad({"rule", "del", "x y"}, 2, "\"x y\" is not a UUID");
  bad({"log", "--level", "9"}, 2, "--level");
  bad({"mount", "/"}, 2, "MOUNTPOINT");
  bad({"rule", "add", kUuid, "--include", ""}, 1, "empty");
  std::string longest;
  for (int i = 0; i < 16; ++i) longest += "/" + std::string(249, 'x');
  bad({"rule", "add", kUuid, "--include", longest, longest, longest}, 1, "15999 fit");
}

TEST_F(ToolTest, help) {
  const Ended ended = tarn({"--help"});
  EXPECT_EQ(ended.exit, 0);
  for (const char *word :
       {"mount", "umount", "rule", "log", "watch", "status", "stop", "A first try"})
    EXPECT_NE(ended.out.find(word), std::string::npos) << word;
  EXPECT_NE(tarn({"rule", "add", "--help"}).out.find("--include DIR..."), std::string::npos);
  EXPECT_TRUE(tarn({"--version"}).out.starts_with("tarn "));
}

TEST_F(ToolTest, mounts_come_and_go) {
  const std::string lower = dir_ / "lo wer", at = dir_ / "mnt\xff";
  fs::create_directory(lower);
  fs::create_directory(at);
  good({"mount", lower, at + "/"}, "");
  EXPECT_EQ(fake_.with([](auto &state) { return state.mounts[0]; }), std::pair(lower, at));
  bad({"mount", lower, at}, 1, "something is mounted at");
  bad({"mount", dir_ / "absent", at}, 1, "does not exist");
  bad({"mount", lower, dir_ / "absent"}, 1, "does not exist");
  std::ofstream(dir_ / "file") << "x";
  bad({"mount", dir_ / "file", at}, 1, "not a directory");
  good({"umount", at}, "");
  bad({"umount", at}, 1, "nothing is mounted at");
}

TEST_F(ToolTest, status) {
  good({"status"}, "tarnd: running in " + fake_.run_dir() +
                       "\nmount: none; 'tarn mount LOWER MOUNTPOINT' makes one\n"
                       "rule: none; 'tarn rule add --include DIR' makes one\n"
                       "daemon: none; changes are not sent to anybody\n");
  fs::create_directory(dir_ / "lower");
  good({"mount", dir_ / "lower", dir_.path()}, "");
  const json status = json::parse(tarn({"status", "--json"}).out);
  EXPECT_EQ(status["mounts"][0]["lower"], dir_ / "lower");
  EXPECT_EQ(status["rules"], json::array());
  EXPECT_TRUE(status["daemon_pid"].is_null());
}

TEST_F(ToolTest, status_is_there_for_those_who_may_not_see_the_rules) {
  fake_.with([](auto &state) { state.forced_result = -EPERM; });
  const Ended text = tarn({"status"});
  EXPECT_EQ(text.exit, 0) << text.err;
  EXPECT_NE(text.out.find("\nrules: only root, or the user that runs tarnd, may see them\n"),
            std::string::npos)
      << text.out;
  EXPECT_FALSE(json::parse(tarn({"status", "--json"}).out).contains("rules"));
  fake_.with([](auto &state) { state.forced_result = -EIO; });
  bad({"status"}, 1, "rules: Input/output error");
  bad({"status", "--json"}, 1, "rules: Input/output error");
}

TEST_F(ToolTest, output_that_cannot_be_written_is_an_error) {
  fake_.with([](auto &state) { state.log = {"a line"}; });
  for (const char *command : {"rule list --json", "status", "status --json", "log", "--help",
                              "rule add --include /", "dir add /a", "--version"}) {
    for (const char *output : {">/dev/full", ">&-"}) {
      const Ended ended =
          run("/bin/sh", {"-c", fmt::format("\"$0\" {} {}", command, output), TARN_PROGRAM},
              environment_);
      EXPECT_EQ(ended.exit, 1) << command << output;
      EXPECT_TRUE(ended.err.starts_with("tarn: cannot write to standard output: ")) << ended.err;
      EXPECT_EQ(std::count(ended.err.begin(), ended.err.end(), '\n'), 1) << ended.err;
    }
  }
  const std::string watch = "\"$0\" watch >/dev/full";
  Program watcher("/bin/sh", {"-c", "exec " + watch, TARN_PROGRAM}, environment_);
  ASSERT_TRUE(fake_.wait_for([](const auto &state) { return state.received.size() >= 2; }));
  fake_.send(name_change(OX_OP_CREATE, {1}, "/d/a", {}, 0100644));
  const Ended ended = watcher.wait();
  EXPECT_EQ(ended.exit, 1) << ended.err;
  EXPECT_TRUE(ended.err.starts_with("tarn: cannot write to standard output: ")) << ended.err;
}

TEST_F(ToolTest, log) {
  fake_.with([](auto &state) { state.log = {"zero", "one", "two", "three"}; });
  good({"log", "--level", "1"},
       "2006-09-20 03:42:06.123456 <0> zero\n2006-09-20 03:42:06.123457 <1> one\n");
  Program follow(TARN_PROGRAM, {"log", "--follow"}, environment_);
  EXPECT_TRUE(eventually([&] { return follow.out().find("three") != std::string::npos; }));
  fake_.with([](auto &state) { state.log.push_back("four"); });
  EXPECT_TRUE(eventually([&] { return follow.out().find("four") != std::string::npos; }));
}

TEST_F(ToolTest, watch_shows_records) {
  Program watch(TARN_PROGRAM, {"watch"}, environment_);
  ASSERT_TRUE(fake_.wait_for([](const auto &state) { return state.received.size() >= 2; }));
  fake_.send(name_change(OX_OP_CREATE, {1}, "/d/a b", {}, 0100644));
  fake_.send(write_data({2}, "/d/f", 10, std::string(9000, 'x')));
  fake_.send(name_change(OX_OP_RENAME, {3}, "/d/f", "/d/g"));
  EXPECT_TRUE(eventually([&] { return watch.out().find("rename") != std::string::npos; }));
  EXPECT_NE(tarn({"status"}).out.find("daemon: process " + std::to_string(watch.pid())),
            std::string::npos);
  bad({"watch"}, 1, "with --take-over");
  watch.signal(SIGINT);
  const Ended ended = watch.wait();
  EXPECT_EQ(ended.exit, 0) << ended.err;
  const std::string head = "10111213-1415-1617-1819-1A1B1C1D1E1F #",
                    time = " 2006-09-20 03:42:06.123456 ";
  EXPECT_EQ(ended.out, head + "1" + time + "create \"/d/a b\" mode 0644\n" + head + "2" + time +
                           "write /d/f offset 10 bytes 9000 pages 3\n" + head + "3" + time +
                           "rename /d/f to /d/g\n");
  EXPECT_TRUE(fake_.wait_for([](const auto &state) { return !state.registered; }));
}

TEST_F(ToolTest, watch_as_json) {
  Program watch(TARN_PROGRAM, {"watch", "--json"}, environment_);
  ASSERT_TRUE(fake_.wait_for([](const auto &state) { return state.received.size() >= 2; }));
  fake_.send(set_attributes(
      {1}, {"/d/\xff", OX_ATTR_MODE | OX_ATTR_SIZE | OX_ATTR_MTIME, 0100600, 1, 2, 3, 4, 5, 6}));
  fake_.send(write_data({2}, "/d/f", 10, std::string(9000, 'x')));
  fake_.send(stop_rule(rule_uuid(2)));
  EXPECT_TRUE(eventually([&] { return watch.out().find("stopped") != std::string::npos; }));
  watch.signal(SIGTERM);
  std::istringstream lines(watch.wait().out);
  std::vector<json> records;
  for (std::string line; std::getline(lines, line);) records.push_back(json::parse(line));
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(
      records[0],
      json::parse(
          R"({"rule":"10111213-1415-1617-1819-1A1B1C1D1E1F","wseq":1,"time_us":1158723726123456,
      "op":"setattr","path":{"base64":"L2Qv/w=="},"mode":"0600","size":3,"mtime_us":5})"));
  EXPECT_EQ(records[1]["bytes"], 9000);
  EXPECT_EQ(records[1]["pages"], 3);
  EXPECT_EQ(records[2]["event"], "stopped");
}

TEST_F(ToolTest, watch_ends_in_the_middle_of_a_stream) {
  Program watch(TARN_PROGRAM, {"watch"}, environment_);
  ASSERT_TRUE(fake_.wait_for([](const auto &state) { return state.received.size() >= 2; }));
  std::atomic<bool> ended = false;
  std::thread writer([&] {
    for (std::uint32_t n = 1; !ended; ++n)
      fake_.send(name_change(OX_OP_CREATE, {n}, "/d/" + std::string(100, 'x'), {}, 0100644));
  });
  const bool shows = eventually([&] { return watch.out().size() > 100000; });
  watch.signal(SIGINT);
  const bool left = fake_.wait_for([](const auto &state) { return !state.registered; });
  ended = true;
  writer.join();
  EXPECT_TRUE(shows);
  EXPECT_TRUE(left);
  EXPECT_EQ(watch.wait().exit, 0);
}

TEST_F(ToolTest, watch_shows_what_it_held_when_tarnd_ends) {
  Program watch(TARN_PROGRAM, {"watch"}, environment_);
  ASSERT_TRUE(fake_.wait_for([](const auto &state) { return state.received.size() >= 2; }));
  fake_.send(name_change(OX_OP_CREATE, {1}, "/d/a", {}, 0100644));
  fake_.send(name_change(OX_OP_CREATE, {3}, "/d/c", {}, 0100644));
  fake_.close_daemon_channel();
  const Ended ended = watch.wait();
  EXPECT_EQ(ended.exit, 1);
  EXPECT_NE(ended.out.find("create /d/c"), std::string::npos) << ended.out;
  EXPECT_NE(ended.err.find("#2 to #2 missing"), std::string::npos) << ended.err;
  EXPECT_NE(ended.err.find("tarnd has ended"), std::string::npos) << ended.err;
}

TEST_F(ToolTest, watch_takes_over_when_told) {
  Program first(TARN_PROGRAM, {"watch"}, environment_);
  ASSERT_TRUE(fake_.wait_for([](const auto &state) { return state.received.size() >= 2; }));
  Program second(TARN_PROGRAM, {"watch", "--take-over"}, environment_);
  ASSERT_TRUE(fake_.wait_for([](const auto &state) { return state.received.size() >= 4; }));
  EXPECT_TRUE(eventually([&] {
    return tarn({"status"}).out.find("daemon: process " + std::to_string(second.pid())) !=
           std::string::npos;
  }));
  const Ended replaced = first.wait();
  EXPECT_EQ(replaced.exit, 1);
  EXPECT_EQ(replaced.err, "tarn: another daemon has taken over: no more records come here\n");
  EXPECT_TRUE(fake_.with([](auto &state) { return state.registered; }))
      << "the first must not unregister the second";
}

/* No tarnd at all, and programs in its place that fail. */
class NoTarndTest : public testing::Test {
 protected:
  NoTarndTest() {
    for (const char *name : {"bin", "lower", "mnt"}) fs::create_directory(dir_ / name);
    fs::copy_file(TARN_PROGRAM, dir_ / "bin/tarn");
  }
  Ended tarn(const Words &arguments) {
    return run(dir_ / "bin/tarn", arguments,
               {"TARN_RUN_DIR=" + (dir_ / "run"), "PATH=/usr/bin:/bin"});
  }
  void put_tarnd(const std::string &script) {
    std::ofstream(dir_ / "bin/tarnd") << "#!/bin/sh\n" << script;
    fs::permissions(dir_ / "bin/tarnd", fs::perms::owner_all);
  }

  TemporaryDirectory dir_;
};

TEST_F(NoTarndTest, commands_say_so) {
  for (const Words &arguments : std::vector<Words>{{"status"},
                                                   {"rule", "list"},
                                                   {"rule", "add", "--include", "/a"},
                                                   {"log"},
                                                   {"watch"},
                                                   {"umount", "/mnt"},
                                                   {"stop"}}) {
    const Ended ended = tarn(arguments);
    EXPECT_EQ(ended.exit, 3) << arguments[0];
    EXPECT_EQ(ended.err, "tarn: no tarnd runs in " + (dir_ / "run") +
                             ": start one with 'tarn mount LOWER MOUNTPOINT'\n");
  }
}

TEST_F(NoTarndTest, mount_cannot_find_it) {
  const Ended ended = tarn({"mount", dir_ / "lower", dir_ / "mnt"});
  EXPECT_EQ(ended.exit, 4);
  EXPECT_TRUE(ended.err.starts_with("tarn: tarnd was not found beside " + (dir_ / "bin")))
      << ended.err;
}

TEST_F(NoTarndTest, mount_passes_on_why_it_did_not_start) {
  put_tarnd("echo \"tarnd: cannot do this: $1 $2\" >&2; exit 1\n");
  Ended ended = tarn({"mount", dir_ / "lower", dir_ / "mnt"});
  EXPECT_EQ(ended.exit, 4);
  EXPECT_EQ(ended.err, "tarnd: cannot do this: --run-dir " + (dir_ / "run") + "\n");
  // Started by a program that leaves no child behind, or without a standard input.
  for (const char *how :
       {"trap '' CHLD; exec \"$0\" mount \"$1\" \"$2\"", "exec \"$0\" mount \"$1\" \"$2\" <&-"}) {
    ended = run("/bin/sh", {"-c", how, dir_ / "bin/tarn", dir_ / "lower", dir_ / "mnt"},
                {"TARN_RUN_DIR=" + (dir_ / "run"), "PATH=/usr/bin:/bin"});
    EXPECT_EQ(ended.exit, 4) << how;
    EXPECT_EQ(ended.err, "tarnd: cannot do this: --run-dir " + (dir_ / "run") + "\n") << how;
  }
  put_tarnd("exit 1\n");
  ended = tarn({"mount", dir_ / "lower", dir_ / "mnt"});
  EXPECT_EQ(ended.exit, 4);
  EXPECT_NE(ended.err.find("did not say why"), std::string::npos) << ended.err;
}

}  // namespace
}  // namespace tarn
