// SPDX-License-Identifier: GPL-2.0
// mirrord as a program, served by the stand-in: registration, replay, catching up, and how it ends.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "client/control.h"
#include "client/workdir.h"
#include "mirrord/catch_up.h"
#include "mirrord/mirror.h"
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
    fs::create_directory(dir_ / "replica");
    fs::permissions(dir_ / "replica", fs::perms::owner_all);  // or a note says that it is made so
    fs::create_directory(dir_ / "src");
    add_rule(rule_uuid(), src_);
  }
  void add_rule(const Uuid &uuid, const std::string &directory) {
    auto control = ControlChannel::connect(tarnd_site(fake_.run_dir()));
    ASSERT_TRUE(control->add_rule({uuid, *make_workdir({{directory}, {}})}).ok());
  }
  std::unique_ptr<Program> start(std::vector<std::string> more = {}) {
    std::vector<std::string> arguments = {
        "--source", src_, "--replica", dir_ / "replica", "--status-file", dir_ / "status"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    auto program = std::make_unique<Program>(MIRRORD_PROGRAM, arguments, environment_);
    EXPECT_TRUE(eventually([&] { return fs::exists(dir_ / "status"); })) << program->err();
    return program;
  }
  Ended catch_up() {
    return run(MIRRORD_PROGRAM,
               {"--catch-up", "--status-file", dir_ / "status", "--timeout", "20"});
  }
  nlohmann::json status() const { return nlohmann::json::parse(std::ifstream(dir_ / "status")); }
  /* And so it is in the source, with `size` bytes in the end. */
  Packet create(std::uint32_t n, const std::string &name, Uuid rule = rule_uuid(),
                std::uintmax_t size = 0) {
    make_source(name, size);
    return name_change(OX_OP_CREATE, {n, rule, kTime + n}, src_ + "/" + name, {}, 0100644);
  }
  void make_source(const std::string &name, std::uintmax_t size) {
    std::ofstream(src_ + "/" + name, std::ios::app).flush();
    fs::resize_file(src_ + "/" + name, size);
    fs::permissions(src_ + "/" + name, fs::perms{0644});
  }
  std::string replica(const std::string &name) const { return dir_ / ("replica/" + name); }

  TemporaryDirectory dir_;
  FakeTarnd fake_{dir_ / "run"};
  const std::string src_ = dir_ / "src";
  const std::vector<std::string> environment_ = {"TARN_RUN_DIR=" + fake_.run_dir(),
                                                 "TARN_STATE_DIR=" + (dir_ / "kept")};
};

TEST_F(MirrorTest, two_who_ask_at_once_get_what_the_later_one_asked_for) {
  const auto mirror = start();
  ASSERT_EQ(catch_up().exit, 0);
  const auto asked = [&] { return fake_.with([](auto &state) { return state.received.size(); }); };
  fake_.send(create(1, "f"));
  fake_.send(create(3, "later"));  // waits for number 2, and so do both who ask
  const std::size_t before = asked();
  mirror->signal(SIGUSR1);
  ASSERT_TRUE(eventually([&] { return asked() == before + 1; }));
  const timespec times[2] = {{1000, 0}, {1000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, (src_ + "/f").c_str(), times, 0), 0);
  auto second = std::async(std::launch::async, [&] { return catch_up(); });
  ASSERT_TRUE(eventually([&] { return asked() == before + 2; }));
  fake_.send(create(2, "g"));
  EXPECT_EQ(second.get().exit, 0);
  struct stat f {};
  ASSERT_EQ(stat(replica("f").c_str(), &f), 0);
  EXPECT_EQ(f.st_mtim.tv_sec, 1000);
}

TEST_F(MirrorTest, replays_catches_up_and_leaves) {
  const auto mirror = start();
  fake_.send(create(1, "f", rule_uuid(), 9000));
  fake_.send(write_data({2}, src_ + "/f", 0, std::string(9000, 'x')));
  const Ended waited = catch_up();
  EXPECT_EQ(waited.exit, 0) << waited.err;
  EXPECT_EQ(fs::file_size(replica("f")), 9000u);
  const auto now = status();
  EXPECT_EQ(now["messages"], 4);
  EXPECT_EQ(now["bytes"], 9000);
  EXPECT_EQ(now["rules"][0]["last_wseq"], 2);
  EXPECT_EQ(now["running"], true);

  fake_.send(create(3, "last"));
  mirror->signal(SIGTERM);
  const Ended ended = mirror->wait();
  EXPECT_EQ(ended.exit, 0) << ended.err;
  EXPECT_EQ(ended.err, "");
  EXPECT_TRUE(fs::exists(replica("last"))) << "what was in the socket is applied";
  EXPECT_TRUE(
      fake_.wait_for([](const auto &state) { return state.received.back() == OX_NL_QUIT; }));
  EXPECT_EQ(status()["running"], false);
  EXPECT_EQ(catch_up().exit, 3);
}

TEST_F(MirrorTest, failures_are_said_and_counted) {
  const auto mirror = start();
  fake_.send(name_change(OX_OP_CREATE, {1}, src_ + "/absent/f", {}, 0100644));
  fake_.send(create(2, "g"));
  EXPECT_EQ(catch_up().exit, 1);
  mirror->signal(SIGINT);
  const Ended ended = mirror->wait();
  EXPECT_EQ(ended.exit, 1);
  EXPECT_NE(ended.err.find("mirrord: rule 10111213-1415-1617-1819-1A1B1C1D1E1F record 1 (create " +
                           src_ + "/absent/f): No such file or directory\n"),
            std::string::npos)
      << ended.err;
  EXPECT_TRUE(fs::exists(replica("g"))) << "the next record is tried all the same";
  EXPECT_EQ(status()["failures"], 1);
}

TEST_F(MirrorTest, gaps_stop_notices_and_rubbish_are_loud) {
  const auto mirror = start();
  fake_.send(create(1, "a"));
  fake_.send(create(3, "c"));
  fake_.send(stop_rule(rule_uuid(2)));
  fake_.send(stop_rule(rule_uuid(2)));
  fake_.send(Packet(20));
  mirror->signal(SIGTERM);
  const Ended ended = mirror->wait();
  EXPECT_EQ(ended.exit, 1);
  EXPECT_NE(ended.err.find("GAP: records 2 to 2 are missing"), std::string::npos) << ended.err;
  EXPECT_NE(ended.err.find("STOPPED"), std::string::npos) << ended.err;
  EXPECT_EQ(ended.err.find("STOPPED"), ended.err.rfind("STOPPED")) << "said once";
  EXPECT_NE(ended.err.find("malformed message"), std::string::npos) << ended.err;
  EXPECT_TRUE(fs::exists(replica("c")));
}

TEST_F(MirrorTest, stopped_rules_are_seen_in_the_tools_status) {
  const std::string uuid = to_string(rule_uuid());
  const auto tarn = [&](const std::vector<std::string> &arguments) {
    const Ended ended = run(TARN_PROGRAM, arguments, environment_);
    EXPECT_EQ(ended.exit, 0) << ended.err;
    return ended.out;
  };
  auto mirror = start();
  EXPECT_EQ(tarn({"status"}).find("STOPPED"), std::string::npos);
  fake_.send(stop_rule(rule_uuid()));
  EXPECT_EQ(catch_up().exit, 1);
  const std::string text = tarn({"status"});
  EXPECT_NE(text.find("rule: " + uuid + " +" + src_ + " STOPPED"), std::string::npos) << text;
  EXPECT_NE(text.find("; 1 problems"), std::string::npos) << text;
  const auto json = nlohmann::json::parse(tarn({"status", "--json"}));
  EXPECT_EQ(json["rules"][0]["stopped"], true);
  EXPECT_EQ(json["daemon_problems"], 1);
  mirror->signal(SIGTERM);
  const Ended ended = mirror->wait();
  EXPECT_EQ(ended.err.find("ran out of memory"), std::string::npos) << ended.err;
  // Of a daemon that has ended, or is another, nothing is told.
  EXPECT_EQ(tarn({"status"}).find("STOPPED"), std::string::npos);
}

TEST_F(MirrorTest, a_missed_beginning_is_a_gap) {
  const auto mirror = start();
  fake_.send(create(5, "a"));
  EXPECT_EQ(catch_up().exit, 1);
  EXPECT_TRUE(fs::exists(replica("a")));
  mirror->signal(SIGTERM);
  EXPECT_NE(mirror->wait().err.find("GAP: begins with record 5"), std::string::npos);
}

TEST_F(MirrorTest, what_was_changed_between_two_lives_of_a_rule_is_a_gap) {
  const auto mirror = start();
  const auto of_life = [&](std::uint32_t generation, std::uint32_t n, const std::string &name) {
    make_source(name, 0);
    return name_change(OX_OP_CREATE, {.wseq = n, .ts = kTime - n, .generation = generation},
                       src_ + "/" + name, {}, 0100644);
  };
  fake_.send(of_life(7, 1, "a"));
  fake_.send(of_life(7, 2, "b"));
  ASSERT_EQ(catch_up().exit, 0);
  fake_.send(of_life(9, 1, "c"));
  EXPECT_EQ(catch_up().exit, 1);
  EXPECT_TRUE(fs::exists(replica("c")));
  EXPECT_EQ(status()["rules"][0]["gaps"], 1);
  mirror->signal(SIGTERM);
  const Ended ended = mirror->wait();
  EXPECT_NE(ended.err.find("GAP: was deleted and added again after record 2"), std::string::npos)
      << ended.err;
}

TEST_F(MirrorTest, loss_signal_does_not_kill) {
  const auto mirror = start();
  mirror->signal(OX_SIG_LOST);
  EXPECT_TRUE(eventually([&] { return mirror->err().find("LOST") != std::string::npos; }));
  fake_.send(create(1, "a"));
  EXPECT_EQ(catch_up().exit, 1);
  mirror->signal(SIGTERM);
  EXPECT_EQ(mirror->wait().exit, 1);
  EXPECT_EQ(status()["lost"], 1);
}

TEST_F(MirrorTest, a_status_file_that_cannot_be_written_ends_it) {
  const Ended ended = run(
      MIRRORD_PROGRAM,
      {"--source", src_, "--replica", dir_ / "replica", "--status-file", dir_ / "absent/status"},
      environment_);
  EXPECT_EQ(ended.exit, 1);
  EXPECT_EQ(ended.err, "mirrord: cannot write the status file " + (dir_ / "absent/status") +
                           ": No such file or directory\n");
  EXPECT_TRUE(fake_.wait_for([](const auto &state) { return !state.registered; }));
}

TEST_F(MirrorTest, only_a_regular_file_is_replaced_by_the_status_file) {
  const std::string fifo = dir_ / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const Ended ended =
      run(MIRRORD_PROGRAM, {"--source", src_, "--replica", dir_ / "replica", "--status-file", fifo},
          environment_);
  EXPECT_EQ(ended.exit, 1);
  EXPECT_EQ(ended.err, "mirrord: cannot write the status file " + fifo +
                           ": there is something that is no regular file: name another\n");
  EXPECT_TRUE(fs::is_fifo(fifo));

  // Of a link, what it leads to is.
  std::ofstream(dir_ / "real") << "old";
  fs::create_symlink("real", dir_ / "status");
  auto mirror = start();
  EXPECT_TRUE(eventually([&] { return fs::file_size(dir_ / "real") > 3; }));
  EXPECT_TRUE(fs::is_symlink(dir_ / "status"));
  mirror->signal(SIGTERM);
  EXPECT_EQ(mirror->wait().exit, 0);
}

TEST_F(MirrorTest, what_the_replica_did_not_keep_is_said_when_it_is_closed) {
  const WriteBackErrorFs files(dir_ / "replica", WriteBackErrorFs::Says::kAtClose);
  const auto mirror = start();
  fake_.send(create(1, "full", rule_uuid(), 1));
  fake_.send(write_data({2}, src_ + "/full", 0, "x"));
  fake_.send(create(3, "roomy", rule_uuid(), 1));
  fake_.send(write_data({4}, src_ + "/roomy", 0, "x"));
  for (const char *name : {"full", "roomy"})  // as all that is there
    fs::permissions(src_ + "/" + name, fs::perms{0666});
  EXPECT_EQ(catch_up().exit, 1) << "caught up is only who has kept it";
  EXPECT_EQ(status()["write_back_errors"], 1);
  fake_.send(write_data({5}, src_ + "/full", 0, "x"));
  mirror->signal(SIGTERM);
  const Ended ended = mirror->wait();
  EXPECT_EQ(ended.exit, 1);
  const std::string line =
      "mirrord: " + replica("full") +
      ": write-back error, written data may be lost: No space left on device\n";
  EXPECT_EQ(ended.err,
            line + line + "mirrord: 2 things went wrong: the replica may differ from the source\n");
  EXPECT_EQ(status()["problems"], 2);
}

TEST_F(MirrorTest, what_cannot_be_written_to_the_disk_is_said_at_the_end) {
  const WriteBackErrorFs files(dir_ / "replica", WriteBackErrorFs::Says::kAtWriteBack);
  const auto mirror = start();
  // Another program's data and file, so no file of mirrord's is closed with an error.
  UniqueFd file(open(replica("f").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_TRUE(file);
  ASSERT_EQ(write(file.get(), "x", 1), 1);
  ASSERT_EQ(file.close(), EIO);
  mirror->signal(SIGTERM);
  const Ended ended = mirror->wait();
  EXPECT_EQ(ended.exit, 1);
  EXPECT_EQ(ended.err,
            "mirrord: write-back error on the file system of " + (dir_ / "replica") +
                ": Input/output error\n"
                "mirrord: 1 things went wrong: the replica may differ from the source\n");
  EXPECT_EQ(status()["write_back_errors"], 1);
}

TEST(StatusFile, what_is_not_kept_does_not_take_its_place) {
  TemporaryDirectory dir;
  const WriteBackErrorFs files(dir.path(), WriteBackErrorFs::Says::kAtClose);
  const auto written = write_status(dir / "full", {});
  ASSERT_FALSE(written.ok());
  EXPECT_EQ(written.error().text,
            "cannot write the status file " + (dir / "full") + ": No space left on device");
}

TEST(StatusFile, what_is_written_in_part_is_an_error_of_its_own) {
  TemporaryDirectory dir;
  const std::string file = dir / "status";
  MirrorStatus status;
  status.source = std::string(10000, 'x');
  ASSERT_TRUE(write_status(file, status).ok());
  const auto before = fs::file_size(file);
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit all{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &all), 0);
  const rlimit little{4096, all.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &little), 0);
  errno = ECHILD;
  status.source += "y";
  const auto written = write_status(file, status);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &all), 0);
  ASSERT_FALSE(written.ok());
  EXPECT_EQ(written.error().text, "cannot write the status file " + file + ": File too large");
  EXPECT_EQ(fs::file_size(file), before);
}

TEST(StatusFile, that_it_cannot_be_read_is_said_as_it_is) {
  TemporaryDirectory dir;
  EXPECT_EQ(read_status(dir / "absent").error().text,
            "cannot read the status file " + (dir / "absent") +
                ": no mirrord writes it: No such file or directory");
  EXPECT_EQ(read_status(dir.path()).error().text,
            "cannot read the status file " + dir.path() + ": Is a directory");
  std::ofstream(dir / "file");
  EXPECT_EQ(read_status(dir / "file/status").error().text,
            "cannot read the status file " + (dir / "file/status") + ": Not a directory");
  EXPECT_EQ(read_status(dir / "file").error().text,
            (dir / "file") + " is not the status file of a mirrord");
}

TEST_F(MirrorTest, another_users_mirrord_has_not_ended) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can be somebody else";
  auto mirror = start();
  fs::permissions(dir_.path(), fs::perms(0755));
  const Ended ended =
      run("/usr/bin/setpriv", {"--reuid=65534", "--regid=65534", "--clear-groups", MIRRORD_PROGRAM,
                               "--catch-up", "--status-file", dir_ / "status"});
  if (ended.exit == 126 || ended.exit == 127) GTEST_SKIP() << ended.err;
  EXPECT_EQ(ended.exit, 3);
  EXPECT_EQ(ended.err, fmt::format("mirrord: cannot ask mirrord (process {}): only root and the "
                                   "user that it runs as may\n",
                                   mirror->pid()));
  mirror->signal(SIGTERM);
  EXPECT_EQ(mirror->wait().exit, 0);
}

TEST_F(MirrorTest, a_source_that_is_not_there_is_noticed) {
  Program mirror(MIRRORD_PROGRAM, {"--source", dir_ / "absent", "--replica", dir_ / "replica"},
                 environment_);
  EXPECT_TRUE(fake_.wait_for([](const auto &state) { return state.registered; }));
  mirror.signal(SIGTERM);
  const Ended ended = mirror.wait();
  EXPECT_EQ(ended.exit, 0);
  EXPECT_EQ(ended.err, "mirrord: note: the source " + (dir_ / "absent") + " does not exist here\n");
}

TEST_F(MirrorTest, a_source_that_is_the_mount_is_noticed) {
  fake_.with([&](auto &state) { state.mounts.emplace_back(dir_ / "lower", src_); });
  Program mirror(MIRRORD_PROGRAM, {"--source", src_, "--replica", dir_ / "replica"}, environment_);
  EXPECT_TRUE(fake_.wait_for([](const auto &state) { return state.registered; }));
  mirror.signal(SIGTERM);
  const Ended ended = mirror.wait();
  EXPECT_EQ(ended.exit, 0);
  EXPECT_EQ(ended.err, "mirrord: note: the source " + src_ +
                           " is a path of the mount; records are about the lower directory: "
                           "you may have meant " +
                           (dir_ / "lower") + "\n");
}

TEST_F(MirrorTest, rules_that_replicate_nothing_are_noticed) {
  const auto said = [&](const std::vector<std::string> &more) {
    Ended ended;
    {
      const auto mirror = start(more);
      mirror->signal(SIGTERM);
      ended = mirror->wait();
    }
    EXPECT_EQ(ended.exit, 0) << ended.err;
    fs::remove(dir_ / "status");
    return ended.err;
  };
  const std::string two = to_string(rule_uuid(2));
  EXPECT_EQ(said({}), "");
  EXPECT_EQ(said({"--rule", two}),
            "mirrord: note: there is no rule " + two + ": nothing is replicated for it\n");
  add_rule(rule_uuid(2), "/elsewhere");
  EXPECT_EQ(said({"--rule", two}),
            "mirrord: note: no rule includes anything of " + src_ +
                ": nothing is replicated; 'tarn rule add --include' adds one\n");
  add_rule(rule_uuid(3), src_ + "/absent");
  EXPECT_EQ(said({}), "mirrord: note: rule " + to_string(rule_uuid(3)) + " includes " + src_ +
                          "/absent, which does not exist here\n");
}

TEST_F(MirrorTest, a_hang_up_ends_it_in_order) {
  const auto mirror = start();
  fake_.send(create(1, "last"));
  mirror->signal(SIGHUP);
  const Ended ended = mirror->wait();
  EXPECT_EQ(ended.exit, 0) << ended.err;
  EXPECT_TRUE(fs::exists(replica("last")));
  EXPECT_EQ(status()["running"], false);
  EXPECT_TRUE(
      fake_.wait_for([](const auto &state) { return state.received.back() == OX_NL_QUIT; }));
}

TEST_F(MirrorTest, that_the_status_file_cannot_be_written_any_more_is_said_once) {
  fs::create_directory(dir_ / "run state");
  const std::string file = dir_ / "run state/status";
  Program mirror(MIRRORD_PROGRAM,
                 {"--source", src_, "--replica", dir_ / "replica", "--status-file", file},
                 environment_);
  ASSERT_TRUE(eventually([&] { return fs::exists(file); })) << mirror.err();
  ASSERT_TRUE(eventually([&] {  // it may write just then
    std::error_code error;
    fs::remove_all(dir_ / "run state", error);
    return !error;
  }));
  fake_.send(create(1, "a"));
  ASSERT_TRUE(eventually([&] { return fs::exists(replica("a")); }));
  mirror.signal(SIGUSR1);
  EXPECT_TRUE(eventually([&] { return mirror.err().find("status file") != std::string::npos; }));
  mirror.signal(SIGUSR1);
  mirror.signal(SIGTERM);
  const Ended ended = mirror.wait();
  EXPECT_EQ(ended.exit, 0) << ended.err;
  EXPECT_EQ(std::count(ended.err.begin(), ended.err.end(), '\n'), 1) << ended.err;
}

TEST_F(MirrorTest, an_end_that_the_module_does_not_confirm_is_a_problem) {
  auto channel = DaemonChannel::open(tarnd_site(fake_.run_dir()), Claim::kRefuseIfTaken);
  ASSERT_TRUE(channel.ok());
  fake_.with([](auto &state) { state.answers = false; });
  auto directory = Replica::open(dir_ / "replica");
  auto signals = SignalPipe::open({SIGTERM});
  Mirror mirror(
      {.source = src_, .replica = dir_ / "replica", .stop_timeout = std::chrono::milliseconds(50)},
      *directory, **channel);
  raise(SIGTERM);
  EXPECT_EQ(mirror.run(**signals), Mirror::End::kProblems);
  EXPECT_EQ(mirror.status().unconfirmed, 1u);
  EXPECT_EQ(mirror.status().problems(), 1u);
}

TEST_F(MirrorTest, only_the_rules_that_were_named) {
  const auto mirror = start({"--rule", to_string(rule_uuid(2))});
  fake_.send(create(1, "one", rule_uuid(1)));
  fake_.send(create(1, "two", rule_uuid(2)));
  EXPECT_EQ(catch_up().exit, 0);
  EXPECT_FALSE(fs::exists(replica("one")));
  EXPECT_TRUE(fs::exists(replica("two")));
}

TEST_F(MirrorTest, the_end_of_tarnd) {
  const auto mirror = start();
  fake_.close_daemon_channel();
  const Ended ended = mirror->wait();
  EXPECT_EQ(ended.exit, 3);
  EXPECT_NE(ended.err.find("tarnd has ended"), std::string::npos) << ended.err;
}

TEST_F(MirrorTest, a_second_one_is_refused_unless_told_otherwise) {
  const auto first = start();
  const std::vector<std::string> arguments = {"--source", src_, "--replica", dir_ / "replica"};
  const Ended second = run(MIRRORD_PROGRAM, arguments, environment_);
  EXPECT_EQ(second.exit, 3);
  EXPECT_NE(second.err.find("is the daemon already"), std::string::npos) << second.err;
  auto take_over = arguments;
  take_over.push_back("--take-over");
  Program third(MIRRORD_PROGRAM, take_over, environment_);
  EXPECT_EQ(first->wait().exit, 3);
  EXPECT_TRUE(fake_.with([](auto &state) { return state.registered; }));
  third.signal(SIGTERM);
  EXPECT_EQ(third.wait().exit, 0);
}

TEST_F(MirrorTest, one_that_cannot_begin_drives_nobody_off) {
  const auto first = start();
  fs::create_directory(dir_ / "state");
  const Ended second = run(MIRRORD_PROGRAM,
                           {"--source", src_, "--replica", dir_ / "replica", "--take-over",
                            "--status-file", dir_ / "state"},
                           environment_);
  EXPECT_EQ(second.exit, 1);
  EXPECT_EQ(second.err, "mirrord: cannot write the status file " + (dir_ / "state") +
                            ": there is something that is no regular file: name another\n");
  fake_.send(create(1, "f"));
  ASSERT_EQ(catch_up().exit, 0) << "the first goes on";

  // Nor does it touch a file that the first writes.
  const std::string before = status().dump();
  const Ended refused =
      run(MIRRORD_PROGRAM,
          {"--source", src_, "--replica", dir_ / "replica", "--status-file", dir_ / "status"},
          environment_);
  EXPECT_EQ(refused.exit, 3);
  EXPECT_EQ(status().dump(), before);
  first->signal(SIGTERM);
  EXPECT_EQ(first->wait().exit, 0);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_.path()), {}), 6) << "nothing is left over";
}

TEST_F(MirrorTest, wrong_arguments) {
  const auto wrong = [&](const std::vector<std::string> &arguments, int exit,
                         const std::string &text) {
    const Ended ended = run(MIRRORD_PROGRAM, arguments, environment_);
    EXPECT_EQ(ended.exit, exit) << ended.err;
    EXPECT_NE(ended.err.find(text), std::string::npos) << ended.err;
    EXPECT_EQ(std::count(ended.err.begin(), ended.err.end(), '\n'), 1) << ended.err;
  };
  wrong({}, 2, "--source and --replica must be given");
  wrong({"--source", "/x"}, 2, "--source and --replica must be given");
  wrong({"--source", "/x", "--replica", "/x/y"}, 2, "lies inside the source");
  wrong({"--source", src_, "--replica", dir_ / "absent"}, 1, "cannot open the replica directory");
  wrong({"--source", src_, "--replica", dir_ / "replica", "--rule", "1"}, 2,
        "is not the UUID of a rule");
  wrong({"--no-such-option"}, 2, "mirrord --help");
  wrong({"--catch-up"}, 2, "--status-file");
  wrong({"--catch-up", "--status-file", dir_ / "absent"}, 3, "no mirrord writes it");
  EXPECT_EQ(run(MIRRORD_PROGRAM, {"--help"}).exit, 0);
  fs::permissions(dir_ / "replica", fs::perms(0755));
  const Ended nobody =
      run(MIRRORD_PROGRAM, {"--source", src_, "--replica", dir_ / "replica"},
          {"TARN_RUN_DIR=" + (dir_ / "absent"), "TARN_STATE_DIR=" + (dir_ / "kept")});
  EXPECT_EQ(nobody.exit, 3);
  EXPECT_NE(nobody.err.find("no tarnd runs in"), std::string::npos);
  EXPECT_EQ(fs::status(dir_ / "replica").permissions(), fs::perms(0755))
      << "it has changed nothing";
}

TEST_F(MirrorTest, ten_thousand_records) {
  const auto mirror = start();
  fake_.send(create(1, "f", rule_uuid(), 10001));
  for (std::uint32_t n = 2; n <= 10000; ++n) fake_.send(write_data({n}, src_ + "/f", n, "x"));
  EXPECT_EQ(catch_up().exit, 0);
  EXPECT_EQ(fs::file_size(replica("f")), 10001u);
  mirror->signal(SIGTERM);
  EXPECT_EQ(mirror->wait().exit, 0);
}

}  // namespace
}  // namespace tarn
