// SPDX-License-Identifier: GPL-2.0
// The commands as they are typed, through a real socket to a service.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iostream>

#include "mirrord/control/protocol.h"
#include "mirrord/control/socket.h"
#include "tests/mirrord/control_fixture.h"

namespace tarn {
namespace {

using namespace test;

class ControlCommandsTest : public ControlTest {
 protected:
  static bool has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
  }
  static bool one_line_of_error(const CommandEnd &end) {
    return end.err.starts_with("mirrord: ") &&
           std::count(end.err.begin(), end.err.end(), '\n') == 1 && end.err.back() == '\n';
  }
};

TEST_F(ControlCommandsTest, status_shows_everything_to_people) {
  serve();
  service_.says.sources[0].targets[1].last_error = "it is full";
  const CommandEnd end = command({"status"});
  EXPECT_EQ(end.exit, 0);
  EXPECT_EQ(end.err, "");
  EXPECT_EQ(
      end.out,
      "mirrord 1.2.3, process 77, up 1 d 3 h: connected to the module\n"
      "\n"
      "source data: /srv/data\n"
      "  rule 6F9619FF-8B86-D011-B42D-00C04FC964FF: record 12 seen, 9 logged, 1 gaps\n"
      "  last gap: records 3 to 4\n"
      "  log 4.0 KiB of 1.0 GiB, entries 1 to 11, durable to 10, first is 3.5 s old\n"
      "  TARGET     STATE    BEHIND  BYTES    TIME        DONE  RATE       LEFT       APPLIED  "
      "FAILURES  "
      "GAPS  SKIPPED  DIRECTORY\n"
      "  data/copy  equal    0       0 B      0.0 s       -     -          -          10       0 "
      "        "
      "0     0        /srv/copy\n"
      "  data/usb   copying  6       3.0 MiB  1 min 30 s  25 %  2.5 MiB/s  2 h 0 min  4        3 "
      "        "
      "0     2        \"/media/a b\"\n"
      "  last error of data/usb: it is full\n"
      "\n"
      "source home: /home\n"
      "  rule : record 0 seen, 0 logged, 0 gaps\n"
      "  log 0 B of 0 B, entries 0 to 0, durable to 0, first is 0.0 s old\n"
      "  TARGET    STATE      BEHIND  BYTES  TIME   DONE  RATE  LEFT  APPLIED  FAILURES  GAPS  "
      "SKIPPED  DIRECTORY\n"
      "  home/far  following  0       0 B    0.0 s  -     -     -     0        0         0     "
      "0        /srv/far\n");
}

TEST_F(ControlCommandsTest, status_ends_with_1_when_somebody_has_to_look) {
  serve();
  service_.says.sources[0].targets[0].state = "held";
  service_.says.sources[0].targets[0].last_error = "a\nb \x1b[31m";
  const CommandEnd end = command({"status"});
  EXPECT_EQ(end.exit, 1);
  EXPECT_TRUE(has(end.out, "problems:\n")) << end.out;
  EXPECT_TRUE(has(end.out, "mirrord skip data/copy")) << end.out;
  EXPECT_FALSE(has(end.out, "\x1b")) << "what comes from elsewhere does not reach the terminal raw";
  service_.says = {};
  const CommandEnd none = command({"status"});
  EXPECT_EQ(none.exit, 1);
  EXPECT_TRUE(has(none.out, "NOT connected")) << none.out;
  EXPECT_TRUE(has(none.out, "no source is configured")) << none.out;
}

TEST_F(ControlCommandsTest, status_in_json_is_the_whole_report) {
  serve();
  const CommandEnd end = command({"status", "--json"});
  EXPECT_EQ(end.exit, 0);
  const auto json = nlohmann::ordered_json::parse(end.out, nullptr, false);
  EXPECT_EQ(json, report_json(service_.says));
}

TEST_F(ControlCommandsTest, targets_are_listed) {
  serve();
  const CommandEnd end = command({"targets"});
  EXPECT_EQ(end.exit, 0);
  EXPECT_EQ(end.out,
            "TARGET     STATE      FROM       TO\n"
            "data/copy  equal      /srv/data  /srv/copy\n"
            "data/usb   copying    /srv/data  \"/media/a b\"\n"
            "home/far   following  /home      /srv/far\n");
}

TEST_F(ControlCommandsTest, metrics_are_printed) {
  serve();
  const CommandEnd end = command({"metrics"});
  EXPECT_EQ(end.exit, 0);
  EXPECT_EQ(end.out, metrics_text(service_.says));
}

TEST_F(ControlCommandsTest, wait_names_what_and_how_long) {
  serve();
  for (const CommandEnd &end : {command({"wait"}), command({"wait", "data", "--timeout", "7"}),
                                command({"wait", "data/usb", "--timeout", "0"})}) {
    EXPECT_EQ(end.exit, 0);
    EXPECT_EQ(end.out + end.err, "") << "nothing, as this is no terminal";
  }
  const std::vector<std::string> expected = {"wait 300000 /", "wait 7000 data/", "wait 0 data/usb"};
  EXPECT_EQ(service_.calls(), expected);
}

TEST_F(ControlCommandsTest, a_wait_that_does_not_end_well_says_why) {
  serve();
  for (const auto &[code, exit] : {std::pair(-ETIMEDOUT, 1), {-EIO, 1}, {-ENOENT, 2}}) {
    service_.outcome = Error{code, "data/usb is paused"};
    const CommandEnd end = command({"wait", "data/usb"});
    EXPECT_EQ(end.exit, exit);
    EXPECT_EQ(end.err, "mirrord: data/usb is paused\n");
  }
}

TEST_F(ControlCommandsTest, pause_resume_and_resync_pass_on_the_name) {
  serve();
  for (const std::vector<std::string> &words :
       {std::vector<std::string>{"pause"}, {"resume", "data"}, {"resync", "data/usb"}}) {
    const CommandEnd end = command(words);
    EXPECT_EQ(end.exit, 0) << words[0];
    EXPECT_EQ(end.out + end.err, "");
  }
  const std::vector<std::string> expected = {"pause /", "resume data/", "resync data/usb"};
  EXPECT_EQ(service_.calls(), expected);
  service_.outcome = Error{-ENOENT, "there is no source x"};
  EXPECT_EQ(command({"pause", "x"}).exit, 2);
  service_.outcome = Error{-EIO, "the disk is broken"};
  EXPECT_EQ(command({"pause"}).exit, 1);
}

TEST_F(ControlCommandsTest, skip_takes_one_target_and_says_what_it_stepped_over) {
  serve();
  EXPECT_EQ(command({"skip", "data/usb"}).out, "data/usb: skipped entry 5: a write to a/b\n");
  EXPECT_EQ(command({"skip", "home"}).out, "home/far: skipped entry 5: a write to a/b\n");
  const CommandEnd two = command({"skip", "data"});
  EXPECT_EQ(two.exit, 2);
  EXPECT_TRUE(has(two.err, "2 targets")) << two.err;
  service_.outcome = Error{-EINVAL, "nothing holds it"};
  EXPECT_EQ(command({"skip", "data/usb"}).exit, 1);
}

TEST_F(ControlCommandsTest, retire_takes_the_name_of_a_replica) {
  serve();
  EXPECT_EQ(command({"retire", "data/far:one"}).exit, 0);
  EXPECT_EQ(service_.calls(), std::vector<std::string>{"retire data/far:one"});
  const CommandEnd none = command({"retire", "data/copy"});
  EXPECT_EQ(none.exit, 2);
  EXPECT_TRUE(has(none.err, "SOURCE/TARGET:REPLICA")) << none.err;
  service_.outcome = Error{-ENOENT, "there is no replica one"};
  EXPECT_EQ(command({"retire", "data/far:one"}).exit, 2);
}

TEST_F(ControlCommandsTest, verify_prints_a_line_for_each_difference) {
  serve();
  const CommandEnd equal = command({"verify"});
  EXPECT_EQ(equal.exit, 0);
  EXPECT_EQ(equal.out, "data/copy: equal\ndata/usb: equal\nhome/far: equal\n");
  service_.differences = {{"a b\n\xff", "mode", "0644, should be 0600"}, {"c", "missing", ""}};
  const CommandEnd end = command({"verify", "data/usb"});
  EXPECT_EQ(end.exit, 1);
  EXPECT_EQ(end.out,
            "data/usb\t\"a b\\n\\xff\"\tmode\t0644, should be 0600\n"
            "data/usb\tc\tmissing\t\n"
            "data/usb: 2 differences; 'mirrord repair data/usb' mends them\n");
  EXPECT_EQ(end.err, "");
}

TEST_F(ControlCommandsTest, what_is_on_other_hosts_is_left_out_of_a_comparison) {
  serve();
  TargetReport &far = service_.says.sources[1].targets[0];
  far.kind = kStreamKind;
  TargetReport replica = far;
  replica.kind = kReplicaKind;
  replica.name = "far:one";
  service_.says.sources[1].targets.push_back(replica);
  const CommandEnd end = command({"verify"});
  EXPECT_EQ(end.exit, 0);
  EXPECT_EQ(end.out, "data/copy: equal\ndata/usb: equal\n");
  for (const char *verb : {"verify", "repair", "skip"}) {
    for (const char *name : {"home", "home/far", "home/far:one"}) {
      const CommandEnd one = command({verb, name});
      EXPECT_EQ(one.exit, 2);
      EXPECT_TRUE(one_line_of_error(one) && has(one.err, "on other hosts")) << one.err;
    }
  }
  service_.says.sources.erase(service_.says.sources.begin());
  const CommandEnd none = command({"verify"});
  EXPECT_EQ(none.exit, 0);
  EXPECT_EQ(none.out, "no target is on this host: ask mirrord on the hosts of the replicas\n");
}

TEST_F(ControlCommandsTest, status_tells_when_a_replica_has_reported) {
  serve();
  TargetReport &far = service_.says.sources[1].targets[0];
  far.kind = kReplicaKind;
  EXPECT_TRUE(has(command({"status"}).out, "  no report of home/far yet\n"));
  far.contact_seconds = 75;
  EXPECT_TRUE(has(command({"status"}).out, "  last report of home/far: 1 min 15 s ago\n"));
}

TEST_F(ControlCommandsTest, repair_prints_what_is_left) {
  serve();
  EXPECT_EQ(command({"repair", "home"}).out, "home/far: equal now\n");
  EXPECT_EQ(service_.calls().back(), "repair home/far");
  service_.differences = {{"c", "data", "it changes"}};
  const CommandEnd end = command({"repair", "data/copy"});
  EXPECT_EQ(end.exit, 1);
  EXPECT_EQ(end.out, "data/copy\tc\tdata\tit changes\ndata/copy: 1 differences are left\n");
}

TEST_F(ControlCommandsTest, a_verification_that_cannot_be_done_ends_with_3) {
  serve();
  service_.outcome = Error{-ENOENT, "the directory of the target is missing"};
  const CommandEnd end = command({"verify", "data"});
  EXPECT_EQ(end.exit, 3);
  EXPECT_EQ(end.out, "");
  EXPECT_EQ(std::count(end.err.begin(), end.err.end(), '\n'), 2) << "each target was tried";
}

TEST_F(ControlCommandsTest, names_that_there_are_not_are_answered_with_those_there_are) {
  serve();
  for (const char *verb : {"verify", "repair", "skip"}) {
    for (const char *name : {"nowhere", "data/nowhere"}) {
      const CommandEnd end = command({verb, name});
      EXPECT_EQ(end.exit, 2);
      EXPECT_TRUE(one_line_of_error(end)) << end.err;
      EXPECT_TRUE(has(end.err, "data/copy, data/usb, home/far")) << end.err;
    }
  }
}

TEST_F(ControlCommandsTest, wrong_words_reach_no_service) {
  serve();
  for (const std::vector<std::string> &words :
       std::vector<std::vector<std::string>>{{"pause", ""},
                                             {"pause", "/"},
                                             {"pause", "a/"},
                                             {"pause", "/b"},
                                             {"pause", "a/b/c"},
                                             {"resync"},
                                             {"skip"},
                                             {"retire"},
                                             {"wait", "--timeout", "-1"},
                                             {"wait", "--timeout", "x"},
                                             {"wait", "--timeout", "99999999999"},
                                             {"status", "extra"},
                                             {"verify", "a", "b"},
                                             {"pause", "--config", "x"}})
    EXPECT_EQ(command(words).exit, 2) << words[0];
  EXPECT_TRUE(service_.calls().empty());
  EXPECT_EQ(run_command({"status"}).exit, 2) << "no configuration";
  EXPECT_EQ(run_command({"status"}).err, "mirrord: /etc/none.toml: there is no such file\n");
  EXPECT_EQ(run_command({}).exit, -1) << "no verb is none of ours";
}

TEST_F(ControlCommandsTest, the_configuration_tells_the_socket) {
  serve();
  EXPECT_EQ(run_command({"targets", "--config", dir_ / "mirrord"}).exit, 0);
}

TEST_F(ControlCommandsTest, the_state_directory_tells_the_socket) {
  serve();
  std::filesystem::create_symlink(socket_, dir_ / "s.sock");
  EXPECT_EQ(run_command({"targets", "--state-directory", dir_.path()}).exit, 0);
  EXPECT_EQ(run_command({"targets", "--state-directory", dir_.path(), "--config", "x"}).exit, 2);
}

TEST_F(ControlCommandsTest, without_a_service_one_line_says_what_to_do) {
  for (const char *verb :
       {"status", "targets", "wait", "pause", "resume", "verify", "repair", "metrics"}) {
    const CommandEnd end = command({verb});
    EXPECT_EQ(end.exit, 3);
    EXPECT_TRUE(one_line_of_error(end)) << end.err;
    EXPECT_TRUE(has(end.err, "systemctl start mirrord")) << end.err;
  }
}

TEST_F(ControlCommandsTest, a_service_that_refuses_cannot_be_reached) {
  serve({.connections = 0});
  const CommandEnd end = command({"status"});
  EXPECT_EQ(end.exit, 3);
  EXPECT_TRUE(one_line_of_error(end)) << end.err;
  EXPECT_TRUE(has(end.err, "0 connections already")) << end.err;
}

TEST_F(ControlCommandsTest, a_service_that_ends_meanwhile_cannot_be_reached) {
  serve();
  service_.lasts = true;
  std::thread ends([&] {
    if (!eventually([&] { return service_.lasting.load(); })) return;
    server_.reset();
  });
  const CommandEnd end = command({"verify"});
  ends.join();
  EXPECT_EQ(end.exit, 3);
  EXPECT_TRUE(one_line_of_error(end)) << end.err;
  EXPECT_TRUE(has(end.err, "ending")) << end.err;
}

TEST_F(ControlCommandsTest, what_answers_something_else_is_no_service) {
  for (const char *answer : {"", "{\"resu", "hello\n", "{\"result\":{}}\n"}) {
    auto listening = ListeningSocket::open(socket_);
    ASSERT_TRUE(listening.ok()) << listening.error().text;
    std::thread other([&] {
      int accepted = -1;
      if (!eventually([&] { return (accepted = accept(listening->fd(), nullptr, nullptr)) >= 0; }))
        return;
      const UniqueFd client(accepted);
      char request[4096];
      EXPECT_GT(recv(client.get(), request, sizeof(request), 0), 0);
      send(client.get(), answer, std::string(answer).size(), MSG_NOSIGNAL);
    });
    const CommandEnd end = command({"status"});
    other.join();
    EXPECT_EQ(end.exit, 3) << answer;
    EXPECT_TRUE(one_line_of_error(end)) << end.err;
  }
}

/* A standard descriptor leads elsewhere while the object exists. */
class Redirected {
 public:
  Redirected(int standard, int to) : standard_(standard), old_(dup(standard)) {
    dup2(to, standard_);
  }
  ~Redirected() { dup2(old_.get(), standard_); }
  Redirected(const Redirected &) = delete;
  Redirected &operator=(const Redirected &) = delete;

 private:
  const int standard_;
  const UniqueFd old_;
};

TEST_F(ControlCommandsTest, output_that_cannot_be_written_is_an_error) {
  serve();
  const UniqueFd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
  if (!full) GTEST_SKIP() << "there is no /dev/full";
  testing::internal::CaptureStderr();
  int exit;
  {
    const Redirected out(STDOUT_FILENO, full.get());
    exit = run_words({"status", "--socket", socket_});
    std::cout.clear();
  }
  EXPECT_EQ(exit, 1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "mirrord: cannot write to the standard output\n");
}

TEST_F(ControlCommandsTest, progress_is_shown_on_a_terminal_and_only_there) {
  serve();
  const UniqueFd master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  if (!master || grantpt(master.get()) != 0 || unlockpt(master.get()) != 0)
    GTEST_SKIP() << "there are no terminals here";
  UniqueFd terminal(open(ptsname(master.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
  testing::internal::CaptureStdout();
  int exit;
  {
    const Redirected err(STDERR_FILENO, terminal.get());
    exit = run_words({"verify", "data/usb", "--socket", socket_});
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "data/usb: equal\n");
  EXPECT_EQ(exit, 0);
  // What was written comes in parts, and an error when nobody has the terminal open any more.
  terminal.reset();
  std::string shown;
  char bytes[4096];
  for (ssize_t got; (got = read(master.get(), bytes, sizeof(bytes))) > 0;)
    shown.append(bytes, static_cast<std::size_t>(got));
  EXPECT_EQ(shown, "\r\033[Kdata/usb: 50 %  half way\r\033[K");
}

}  // namespace
}  // namespace tarn
