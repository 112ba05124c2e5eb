// SPDX-License-Identifier: GPL-2.0
// mirrord as a program with one source and one replica, served by the stand-in: registration,
// replay, waiting, and how it ends.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "client/control.h"
#include "client/daemon_lock.h"
#include "client/daemon_report.h"
#include "client/workdir.h"
#include "tests/replicate/fake_tarnd.h"
#include "tests/replicate/run_program.h"
#include "tests/replicate/write_back_error_fs.h"

namespace tarn {
namespace {

using namespace test;
namespace fs = std::filesystem;

class MirrorTest : public testing::Test {
 protected:
  MirrorTest() {
    fs::permissions(fake_.run_dir(), fs::perms::owner_all);  // or the control socket is refused
    for (const char *name : {"replica", "other", "src"}) {
      fs::create_directory(dir_ / name);
      fs::permissions(dir_ / name, fs::perms::owner_all);  // or a note says that it is made so
    }
  }
  std::unique_ptr<Program> start(std::vector<std::string> more = {},
                                 const std::string &replica = "replica") {
    std::vector<std::string> arguments = {"--source", src_, "--replica", dir_ / replica};
    arguments.insert(arguments.end(), more.begin(), more.end());
    auto program = std::make_unique<Program>(MIRRORD_PROGRAM, arguments, environment_);
    EXPECT_TRUE(eventually([&] { return says(*program, "mirrord: registered"); }))
        << program->err();
    if (const auto rules = all_rules(); !rules.empty()) rule_ = rules[0].uuid;
    return program;
  }
  std::vector<Rule> all_rules() {
    auto rules = ControlChannel::connect(tarnd_site(fake_.run_dir()))->list_rules();
    EXPECT_TRUE(rules.ok());
    return rules ? *rules : std::vector<Rule>();
  }
  static bool says(const Program &program, const std::string &text) {
    return program.err().find(text) != std::string::npos;
  }
  Ended verb(std::vector<std::string> words) { return run(MIRRORD_PROGRAM, words, environment_); }
  Ended wait() { return verb({"wait", "--timeout", "60"}); }
  nlohmann::json source_status() {
    return nlohmann::json::parse(verb({"status", "--json"}).out).at("sources").at(0);
  }
  static Ended end(Program &program, int signal = SIGTERM) {
    program.signal(signal);
    return program.wait();
  }
  /* And so it is in the source, with `size` bytes in the end. */
  Packet create(std::uint32_t n, const std::string &name, std::uintmax_t size = 0) {
    make_source(name, size);
    return name_change(OX_OP_CREATE, stamp(n), src_ + "/" + name, {}, 0100644);
  }
  Stamp stamp(std::uint32_t n) const { return {n, rule_, kTime + n}; }
  void make_source(const std::string &name, std::uintmax_t size) const {
    std::ofstream(src_ + "/" + name, std::ios::app).flush();
    fs::resize_file(src_ + "/" + name, size);
    fs::permissions(src_ + "/" + name, fs::perms{0644});
  }
  std::string replica(const std::string &name) const { return dir_ / ("replica/" + name); }

  TemporaryDirectory dir_;
  FakeTarnd fake_{dir_ / "run"};
  Uuid rule_{}; /* that mirrord has added */
  const std::string src_ = dir_ / "src";
  const std::vector<std::string> environment_ = {"TARN_RUN_DIR=" + fake_.run_dir(),
                                                 "TARN_STATE_DIR=" + (dir_ / "kept")};
};

TEST_F(MirrorTest, two_who_ask_at_once_get_what_the_later_one_asked_for) {
  const auto mirror = start();
  ASSERT_EQ(wait().exit, 0);
  const auto asked = [&] { return fake_.with([](auto &state) { return state.received.size(); }); };
  fake_.send(create(1, "f"));
  fake_.send(create(3, "later"));  // waits for number 2, and so do both who ask
  std::size_t before = asked();
  auto first = std::async(std::launch::async, [&] { return wait(); });
  ASSERT_TRUE(eventually([&] { return asked() > before; }));
  const timespec times[2] = {{1000, 0}, {1000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, (src_ + "/f").c_str(), times, 0), 0);
  before = asked();
  auto second = std::async(std::launch::async, [&] { return wait(); });
  ASSERT_TRUE(eventually([&] { return asked() > before; }));
  fake_.send(create(2, "g"));
  EXPECT_EQ(first.get().exit, 0);
  EXPECT_EQ(second.get().exit, 0);
  struct stat f {};
  ASSERT_EQ(stat(replica("f").c_str(), &f), 0);
  EXPECT_EQ(f.st_mtim.tv_sec, 1000);
}

TEST_F(MirrorTest, copies_replays_and_leaves) {
  make_source("there", 10);
  const auto mirror = start();
  fake_.send(create(1, "f", 9000));
  fake_.send(write_data(stamp(2), src_ + "/f", 0, std::string(9000, 'x')));
  const Ended waited = wait();
  EXPECT_EQ(waited.exit, 0) << waited.err;
  EXPECT_EQ(fs::file_size(replica("f")), 9000u);
  EXPECT_EQ(fs::file_size(replica("there")), 10u);
  const auto now = source_status();
  EXPECT_EQ(now["logged"], 4);
  EXPECT_EQ(now["captured"], 2);
  EXPECT_EQ(now["directory"], src_);

  fake_.send(create(3, "last"));
  const Ended ended = end(*mirror);
  EXPECT_EQ(ended.exit, 0) << ended.err;
  EXPECT_EQ(ended.err.find("GAP"), std::string::npos) << ended.err;
  EXPECT_TRUE(fs::exists(replica("last"))) << "what was in the socket is applied";
  EXPECT_TRUE(
      fake_.wait_for([](const auto &state) { return state.received.back() == OX_NL_QUIT; }));
  EXPECT_EQ(wait().exit, 3);
}

TEST_F(MirrorTest, what_it_could_not_apply_keeps_nothing_from_the_rest) {
  const auto mirror = start();
  fake_.send(name_change(OX_OP_CREATE, stamp(1), src_ + "/absent/f", {}, 0100644));
  fake_.send(create(2, "g"));
  EXPECT_EQ(wait().exit, 0);
  EXPECT_TRUE(fs::exists(replica("g")));
  EXPECT_EQ(end(*mirror, SIGINT).exit, 0);
}

TEST_F(MirrorTest, gaps_stop_notices_and_rubbish_are_loud) {
  const auto mirror = start();
  fake_.send(create(1, "a"));
  make_source("b", 5);
  fake_.send(create(3, "c"));
  fake_.send(stop_rule(rule_));
  fake_.send(stop_rule(rule_));
  fake_.send(Packet(20));
  // Added anew, the rule begins again; the hole has been declared by then.
  EXPECT_TRUE(eventually([&] { return source_status()["gaps"] == 3; })) << mirror->err();
  EXPECT_EQ(wait().exit, 0);
  EXPECT_TRUE(fs::exists(replica("c")));
  EXPECT_EQ(fs::file_size(replica("b")), 5u) << "the gap is healed";
  const Ended ended = end(*mirror);
  EXPECT_EQ(ended.exit, 0) << "all was healed";
  for (const char *text : {"GAP: records 2 to 2 are missing", "GAP: the module has stopped",
                           "GAP: the module had no rule", "a message is malformed"})
    EXPECT_NE(ended.err.find(text), std::string::npos) << text << "\n" << ended.err;
}

TEST_F(MirrorTest, a_missed_beginning_is_a_gap) {
  const auto mirror = start();
  make_source("before", 3);
  fake_.send(create(5, "a"));
  EXPECT_EQ(wait().exit, 0);
  EXPECT_TRUE(fs::exists(replica("a")));
  EXPECT_TRUE(fs::exists(replica("before")));
  EXPECT_NE(end(*mirror).err.find("GAP: records before number 5"), std::string::npos);
}

TEST_F(MirrorTest, loss_signal_does_not_kill) {
  const auto mirror = start();
  ASSERT_EQ(wait().exit, 0);
  make_source("lost", 3);
  mirror->signal(OX_SIG_LOST);
  EXPECT_TRUE(eventually([&] { return says(*mirror, "GAP: the module could not deliver"); }));
  EXPECT_EQ(wait().exit, 0);
  EXPECT_TRUE(fs::exists(replica("lost")));
  EXPECT_EQ(end(*mirror).exit, 0);
}

TEST_F(MirrorTest, its_problems_are_seen_in_the_tools_status) {
  const auto problems = [&] {
    const Ended ended = run(TARN_PROGRAM, {"status", "--json"}, environment_);
    EXPECT_EQ(ended.exit, 0) << ended.err;
    const auto json = nlohmann::json::parse(ended.out);
    return json.contains("daemon_problems") ? json["daemon_problems"].get<int>() : -1;
  };
  const auto mirror = start();
  EXPECT_TRUE(eventually([&] { return problems() == 0; }));
  ASSERT_EQ(wait().exit, 0);
  fs::rename(dir_ / "replica", dir_ / "away");
  EXPECT_TRUE(eventually([&] { return problems() == 1; }));
  const Ended ended = end(*mirror);
  EXPECT_EQ(ended.exit, 1);
  EXPECT_NE(ended.err.find("may differ from " + src_ + ": it ends in the state \"away\""),
            std::string::npos)
      << ended.err;
  EXPECT_EQ(problems(), -1) << "of a daemon that has ended nothing is told";
}

TEST_F(MirrorTest, stopped_rules_are_seen_in_the_tools_status) {
  const Site site = tarnd_site(fake_.run_dir());
  const std::string uuid = to_string(rule_uuid());
  auto control = ControlChannel::connect(site);
  ASSERT_TRUE(control->add_rule({rule_uuid(), *make_workdir({{src_}, {}})}).ok());
  const auto status = [&](const std::vector<std::string> &words) {
    const Ended ended = run(TARN_PROGRAM, words, environment_);
    EXPECT_EQ(ended.exit, 0) << ended.err;
    return ended.out;
  };
  const auto we_are_the_daemon = DaemonLock::take(site, Claim::kRefuseIfTaken);
  ASSERT_TRUE(we_are_the_daemon.ok());
  EXPECT_EQ(status({"status"}).find("STOPPED"), std::string::npos);
  ASSERT_TRUE(write_daemon_report(site, {.problems = 1, .stopped = {rule_uuid()}}).ok());
  const std::string text = status({"status"});
  EXPECT_NE(text.find("rule: " + uuid + " +" + src_ + " STOPPED"), std::string::npos) << text;
  EXPECT_NE(text.find("; 1 problems"), std::string::npos) << text;
  EXPECT_EQ(nlohmann::json::parse(status({"status", "--json"}))["rules"][0]["stopped"], true);
}

TEST_F(MirrorTest, what_the_replica_did_not_keep_holds_it) {
  const WriteBackErrorFs files(dir_ / "replica", WriteBackErrorFs::Says::kAtClose);
  const auto mirror = start();
  ASSERT_EQ(wait().exit, 0) << mirror->err();
  fake_.send(create(1, "full", 1));
  fake_.send(write_data(stamp(2), src_ + "/full", 0, "x"));
  fs::permissions(src_ + "/full", fs::perms{0666});  // as all that is there
  const Ended waited = wait();
  EXPECT_EQ(waited.exit, 1);
  const Ended ended = end(*mirror);
  EXPECT_EQ(ended.exit, 1);
  // Held by it, or about to compare everything anew.
  EXPECT_NE(ended.err.find("it ends in the state"), std::string::npos) << ended.err;
  EXPECT_NE(ended.err.find("No space left on device\n"), std::string::npos) << ended.err;
}

TEST_F(MirrorTest, what_cannot_be_written_to_the_disk_is_said_at_the_end) {
  const WriteBackErrorFs files(dir_ / "replica", WriteBackErrorFs::Says::kAtWriteBack);
  const auto mirror = start();
  ASSERT_EQ(wait().exit, 0) << mirror->err();
  // Another program's data and file, so no file of mirrord's is closed with an error.
  UniqueFd file(open(replica("f").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_TRUE(file);
  ASSERT_EQ(write(file.get(), "x", 1), 1);
  ASSERT_EQ(file.close(), EIO);
  const Ended ended = end(*mirror);
  EXPECT_EQ(ended.exit, 1);
  EXPECT_NE(ended.err.find("the position is not saved: "), std::string::npos) << ended.err;
  EXPECT_NE(ended.err.find("may differ"), std::string::npos) << ended.err;
}

TEST_F(MirrorTest, a_source_that_is_not_there_is_refused) {
  const Ended ended = verb({"--source", dir_ / "absent", "--replica", dir_ / "replica"});
  EXPECT_EQ(ended.exit, 2);
  EXPECT_NE(ended.err.find("the source " + (dir_ / "absent") + " is no directory"),
            std::string::npos)
      << ended.err;
  EXPECT_FALSE(fs::exists(dir_ / "kept"));
}

TEST_F(MirrorTest, a_hang_up_ends_it_in_order) {
  const auto mirror = start();
  ASSERT_EQ(wait().exit, 0);
  fake_.send(create(1, "last"));
  const Ended ended = end(*mirror, SIGHUP);
  EXPECT_EQ(ended.exit, 0) << ended.err;
  EXPECT_TRUE(fs::exists(replica("last")));
  EXPECT_TRUE(
      fake_.wait_for([](const auto &state) { return state.received.back() == OX_NL_QUIT; }));
}

TEST_F(MirrorTest, an_end_that_the_module_does_not_confirm_is_a_problem) {
  const auto mirror = start();
  ASSERT_EQ(wait().exit, 0);
  fake_.with([](auto &state) { state.answers = false; });
  fake_.send(create(1, "f"));
  EXPECT_TRUE(eventually([&] { return fs::exists(replica("f")); }));
  const Ended ended = end(*mirror);
  EXPECT_EQ(ended.exit, 1);
  EXPECT_NE(ended.err.find("does not say whether it has sent all"), std::string::npos) << ended.err;
  EXPECT_NE(ended.err.find("it ends in the state \"following\""), std::string::npos) << ended.err;
}

TEST_F(MirrorTest, the_end_of_tarnd_is_not_its_own) {
  const auto mirror = start();
  ASSERT_EQ(wait().exit, 0);
  fake_.with([](auto &state) { state.registered = false; });
  fake_.close_daemon_channel();
  EXPECT_TRUE(eventually([&] { return says(*mirror, "tarnd has ended"); }));
  EXPECT_TRUE(fake_.wait_for([](const auto &state) { return state.registered; }));
  EXPECT_TRUE(eventually([&] { return wait().exit == 0; }));
  EXPECT_EQ(end(*mirror).exit, 0);
}

TEST_F(MirrorTest, a_second_one_is_refused_unless_told_otherwise) {
  const auto first = start();
  const Ended same = verb({"--source", src_, "--replica", dir_ / "replica"});
  EXPECT_EQ(same.exit, 1);
  EXPECT_NE(same.err.find("another mirrord"), std::string::npos) << same.err;
  const std::vector<std::string> arguments = {
      "--source", src_, "--replica", dir_ / "other", "--state-directory", dir_ / "second"};
  const Ended second = verb(arguments);
  EXPECT_EQ(second.exit, 3);
  EXPECT_NE(second.err.find("is the daemon already"), std::string::npos) << second.err;
  const auto third = start({"--take-over", "--state-directory", dir_ / "third"}, "other");
  EXPECT_TRUE(eventually([&] { return says(*first, "another daemon has taken over"); }));
  EXPECT_EQ(wait().exit, 1) << "that asks the first";
  EXPECT_EQ(verb({"wait", "--state-directory", dir_ / "third"}).exit, 0);
  EXPECT_EQ(end(*third).exit, 0);
  EXPECT_TRUE(fake_.wait_for([](const auto &state) { return state.registered; }))
      << "the first is the daemon again";
  EXPECT_TRUE(eventually([&] { return wait().exit == 0; }));
  EXPECT_EQ(end(*first).exit, 0);
}

TEST_F(MirrorTest, one_that_cannot_begin_drives_nobody_off) {
  const auto first = start();
  std::ofstream(src_ + "/f");
  const Ended second = verb({"--source", src_, "--replica", dir_ / "other", "--take-over",
                             "--state-directory", src_ + "/f"});
  EXPECT_EQ(second.exit, 2) << second.err;
  const Ended third = verb({"--source", src_, "--replica", dir_ / "other", "--take-over",
                            "--state-directory", dir_ / "replica"});
  EXPECT_NE(third.exit, 0) << third.err;
  ASSERT_EQ(wait().exit, 0) << "the first goes on";
  EXPECT_FALSE(says(*first, "taken over"));
  EXPECT_EQ(end(*first).exit, 0);
}

TEST_F(MirrorTest, each_pair_keeps_its_own_place) {
  make_source("f", 4);
  for (const char *replica : {"replica", "other", "replica"}) {
    const auto mirror = start({}, replica);
    EXPECT_EQ(wait().exit, 0);
    EXPECT_EQ(fs::file_size(dir_ / (std::string(replica) + "/f")), 4u);
    EXPECT_EQ(end(*mirror).exit, 0) << mirror->err();
  }
  EXPECT_EQ(all_rules().size(), 1u);
}

TEST_F(MirrorTest, wrong_arguments) {
  const auto wrong = [&](const std::vector<std::string> &arguments, int exit,
                         const std::string &text) {
    const Ended ended = verb(arguments);
    EXPECT_EQ(ended.exit, exit) << ended.err;
    EXPECT_NE(ended.err.find(text), std::string::npos) << ended.err;
    EXPECT_EQ(std::count(ended.err.begin(), ended.err.end(), '\n'), 1) << ended.err;
  };
  wrong({}, 2, "--source and --replica must be given");
  wrong({"--source", src_}, 2, "--source and --replica must be given");
  wrong({"--source", src_, "--replica", src_ + "/y"}, 2, "lies inside the source");
  wrong({"--source", src_, "--replica", dir_ / "absent"}, 1, "is not there");
  wrong({"--no-such-option"}, 2, "mirrord --help");
  wrong({"--state-directory", dir_ / "x", "wait"}, 2, "a verb's options come behind it");
  wrong({"wait", "--state-directory", dir_ / "x"}, 3, "no mirrord service answers");
  wrong({"wait", "--state-directory", dir_ / "x", "--socket", "/y"}, 2, "mirrord --help");
  EXPECT_EQ(run(MIRRORD_PROGRAM, {"--help"}).exit, 0);
  fs::permissions(dir_ / "replica", fs::perms(0755));
  const Ended nobody =
      run(MIRRORD_PROGRAM, {"--source", src_, "--replica", dir_ / "replica"},
          {"TARN_RUN_DIR=" + (dir_ / "absent"), "TARN_STATE_DIR=" + (dir_ / "kept")});
  EXPECT_EQ(nobody.exit, 3);
  EXPECT_NE(nobody.err.find("no tarnd runs in"), std::string::npos) << nobody.err;
  EXPECT_EQ(fs::status(dir_ / "replica").permissions(), fs::perms(0755))
      << "it has changed nothing there";
}

TEST_F(MirrorTest, ten_thousand_records) {
  const auto mirror = start();
  fake_.send(create(1, "f", 10001));
  for (std::uint32_t n = 2; n <= 10000; ++n) fake_.send(write_data(stamp(n), src_ + "/f", n, "x"));
  EXPECT_EQ(wait().exit, 0);
  EXPECT_EQ(fs::file_size(replica("f")), 10001u);
  EXPECT_EQ(source_status()["captured"], 10000);
  EXPECT_EQ(end(*mirror).exit, 0);
}

}  // namespace
}  // namespace tarn
