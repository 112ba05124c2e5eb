// SPDX-License-Identifier: GPL-2.0
// The control socket as a client sees it that sends what it likes, when it likes.
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>

#include "mirrord/control/line_stream.h"
#include "mirrord/control/protocol.h"
#include "tests/mirrord/control_fixture.h"

namespace tarn {
namespace {

using namespace test;
using std::chrono::milliseconds;

sockaddr_un address_of(const std::string &socket) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  socket.copy(address.sun_path, sizeof(address.sun_path) - 1);
  return address;
}

class ControlServerTest : public ControlTest {
 protected:
  bool served() { return RawClient(socket_).ask(R"({"verb":"status"})").contains("result"); }
};

TEST_F(ControlServerTest, every_verb_reaches_the_service_and_is_answered) {
  serve();
  service_.differences = {{"a/b", "mode", "0644, should be 0600"}};
  RawClient client(socket_);
  EXPECT_EQ(client.ask(R"({"verb":"status"})")["result"]["pid"], 77);
  EXPECT_EQ(client.ask(R"({"verb":"metrics"})")["result"]["text"], metrics_text(service_.says));
  EXPECT_EQ(client.ask(R"({"verb":"wait","source":"data","timeout_ms":1500})")["progress"], 0.5);
  EXPECT_EQ(client.line(), R"({"result":{}})");
  EXPECT_EQ(client.ask(R"({"verb":"pause"})").dump(), R"({"result":{}})");
  EXPECT_EQ(client.ask(R"({"verb":"resume","source":"data","target":"usb"})").dump(),
            R"({"result":{}})");
  EXPECT_EQ(client.ask(R"({"verb":"resync","source":"home"})").dump(), R"({"result":{}})");
  EXPECT_EQ(client.ask(R"({"verb":"skip","source":"data","target":"usb"})").dump(),
            R"({"result":{"skipped":"entry 5: a write to a/b"}})");
  EXPECT_EQ(client.ask(R"({"verb":"verify","source":"data","target":"copy"})")["what"], "half way");
  EXPECT_EQ(
      client.line(),
      R"({"difference":{"path":"a/b","kind":"mode","detail":"0644, should be 0600","other":""}})");
  EXPECT_EQ(client.line(), R"({"result":{"differences":1}})");
  service_.differences.clear();
  EXPECT_TRUE(client.ask(R"({"verb":"repair","source":"data","target":"copy"})").contains("what"));
  EXPECT_EQ(client.line(), R"({"result":{"differences":0}})");
  EXPECT_EQ(client.ask(R"({"verb":"retire","source":"data","target":"far:one"})").dump(),
            R"({"result":{}})");
  const std::vector<std::string> expected = {
      "report /",         "report /",           "wait 1500 data/", "pause /",
      "resume data/usb",  "resync home/",       "skip data/usb",   "verify data/copy",
      "repair data/copy", "retire data/far:one"};
  EXPECT_EQ(service_.calls(), expected);
}

TEST_F(ControlServerTest, what_the_service_cannot_do_comes_back_with_its_reason) {
  serve();
  service_.outcome = Error{-ENOENT, "there is no target x"};
  RawClient client(socket_);
  for (const char *request :
       {R"({"verb":"pause","source":"x"})", R"({"verb":"skip","source":"data","target":"x"})"})
    EXPECT_EQ(client.ask(request).dump(), R"({"error":{"code":-2,"text":"there is no target x"}})");
  client.send("{\"verb\":\"verify\",\"source\":\"data\",\"target\":\"x\"}\n");
  client.line();  // of progress
  EXPECT_EQ(client.answer()["error"]["code"], -ENOENT);
}

TEST_F(ControlServerTest, what_is_no_request_does_nothing_and_the_next_one_is_served) {
  serve();
  RawClient client(socket_);
  for (const char *line : {"",
                           "garbage",
                           "[]",
                           "7",
                           "{}",
                           "{\"verb\":\"status\"",
                           "\xff\xfe{}",
                           R"({"verb":7})",
                           R"({"verb":"stop"})",
                           R"({"verb":"pause","target":"copy"})",
                           R"({"verb":"pause","source":7})",
                           R"({"verb":"pause","source":""})",
                           R"({"verb":"pause","force":true})",
                           R"({"verb":"skip","source":"data"})",
                           R"({"verb":"verify"})",
                           R"({"verb":"status","source":"data"})",
                           R"({"verb":"wait","timeout_ms":-1})",
                           R"({"verb":"wait","timeout_ms":1e300})",
                           R"({"verb":"wait","timeout_ms":99999999999999})",
                           R"({"verb":"pause","timeout_ms":5})"}) {
    const auto answer = client.ask(line);
    ASSERT_TRUE(answer.contains("error")) << line << " got " << answer;
    EXPECT_EQ(answer["error"]["code"], -EBADMSG) << line;
  }
  EXPECT_TRUE(service_.calls().empty());
  EXPECT_TRUE(client.ask(R"({"verb":"status"})").contains("result"));
}

TEST_F(ControlServerTest, a_line_that_is_too_long_ends_the_connection) {
  serve();
  RawClient exact(socket_), long_line(socket_), endless(socket_);
  std::string request = R"({"verb":"status"})";
  request.resize(kRequestMax, ' ');
  EXPECT_TRUE(exact.ask(request).contains("result"));
  EXPECT_TRUE(long_line.ask(request + " ").contains("refused"));
  EXPECT_EQ(long_line.line(), "");
  endless.send(std::string(1 << 20, '{'));
  EXPECT_TRUE(endless.answer().contains("refused"));
  EXPECT_EQ(endless.line(), "");
  EXPECT_EQ(service_.calls().size(), 1U);
}

TEST_F(ControlServerTest, half_a_request_is_none) {
  serve();
  RawClient ended(socket_), gone(socket_);
  ended.send(R"({"verb":"pause"})");
  ended.end_sending();
  EXPECT_TRUE(ended.answer().contains("refused"));
  EXPECT_EQ(ended.line(), "");
  gone.send(R"({"verb":"pause"})");
  gone = RawClient(socket_);
  EXPECT_TRUE(gone.ask(R"({"verb":"status"})").contains("result"));
  EXPECT_EQ(service_.calls(), std::vector<std::string>{"report /"});
}

TEST_F(ControlServerTest, a_client_that_sends_nothing_whole_is_not_waited_for) {
  serve({.patience = milliseconds(2000)});
  RawClient silent(socket_), slow(socket_), between(socket_);
  slow.send(R"({"verb":)");
  EXPECT_TRUE(between.ask(R"({"verb":"status"})").contains("result"));
  for (RawClient *client : {&silent, &slow, &between}) {
    EXPECT_NE(client->answer()["refused"].get<std::string>().find("2000 ms"), std::string::npos);
    EXPECT_EQ(client->line(), "");
  }
}

TEST_F(ControlServerTest, a_client_that_reads_nothing_is_not_waited_for) {
  serve({.connections = 2, .patience = milliseconds(2000)});
  service_.differences.assign(5000, {std::string(100, 'p'), "data", "bytes 0 to 4095"});
  RawClient stuck(socket_);
  stuck.send("{\"verb\":\"verify\",\"source\":\"data\",\"target\":\"copy\"}\n");
  ASSERT_TRUE(eventually([&] { return service_.lasting.load(); }));
  EXPECT_TRUE(served()) << "others are";
  ASSERT_TRUE(eventually([&] { return stuck.closed(); })) << "it is given up";
  std::string line, last;
  while (!(line = stuck.line()).empty()) last = line;
  EXPECT_EQ(last.find("result"), std::string::npos) << "cut off: " << last;
}

TEST_F(ControlServerTest, a_slow_reader_gets_everything) {
  const milliseconds patience(3000);
  serve({.patience = patience});
  service_.differences.assign(5000, {std::string(100, 'p'), "data", "bytes 0 to 4095"});
  RawClient slow(socket_);
  slow.send("{\"verb\":\"verify\",\"source\":\"data\",\"target\":\"copy\"}\n");
  std::size_t differences = 0;
  for (;;) {
    const std::string line = slow.line();
    ASSERT_FALSE(line.empty());
    if (line.starts_with("{\"result")) break;
    differences += line.starts_with("{\"difference");
    // All of it takes longer than the patience, but no part.
    if (differences % 1000 == 1) std::this_thread::sleep_for(patience / 4);
  }
  EXPECT_EQ(differences, 5000U);
}

TEST_F(ControlServerTest, more_connections_than_allowed_are_refused_and_others_go_on) {
  serve({.connections = 3});
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < 3; ++i) {
    clients.push_back(std::make_unique<RawClient>(socket_));
    EXPECT_TRUE(clients.back()->ask(R"({"verb":"status"})").contains("result"));
  }
  for (int i = 0; i < 50; ++i) {
    RawClient more(socket_);
    const auto answer = more.answer();
    ASSERT_TRUE(answer.contains("refused")) << answer;
    EXPECT_NE(answer["refused"].get<std::string>().find("3 connections"), std::string::npos);
    EXPECT_EQ(more.line(), "");
  }
  EXPECT_TRUE(clients[1]->ask(R"({"verb":"status"})").contains("result"));
  clients.pop_back();
  EXPECT_TRUE(eventually([&] { return served(); }));
}

TEST_F(ControlServerTest, many_clients_at_once_are_all_served) {
  serve();
  std::atomic<int> good = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 16; ++i)
    threads.emplace_back([&] {
      for (int j = 0; j < 50; ++j) good += served();
    });
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(good, 16 * 50);
}

std::ptrdiff_t count_threads() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

TEST_F(ControlServerTest, without_descriptors_a_connection_waits_for_them) {
  serve();
  const auto threads = count_threads();
  ASSERT_TRUE(served());
  // The sanitizers take descriptors, too, when a connection's thread ends.
  ASSERT_TRUE(eventually([&] { return count_threads() == threads; }));
  UniqueFd unconnected(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = address_of(socket_);
  rlimit old;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
  rlimit none = old;
  none.rlim_cur = 3;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const int connected =
      connect(unconnected.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address));
  std::this_thread::sleep_for(milliseconds(50));
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
  ASSERT_EQ(connected, 0);
  RawClient client(std::move(unconnected));
  EXPECT_TRUE(client.ask(R"({"verb":"status"})").contains("result"));
  EXPECT_TRUE(served());
}

TEST_F(ControlServerTest, work_for_a_client_that_has_gone_ends) {
  serve({.connections = 1});
  service_.lasts = true;
  for (const char *request :
       {R"({"verb":"wait"})", R"({"verb":"verify","source":"a","target":"b"})",
        R"({"verb":"repair","source":"a","target":"b"})"}) {
    service_.lasting = service_.told_gone = false;
    {
      std::unique_ptr<RawClient> client;
      ASSERT_TRUE(eventually([&] {
        client.reset();
        client = std::make_unique<RawClient>(socket_);
        return client->ask(R"({"verb":"status"})").contains("result");
      })) << "the place is free: "
          << request;
      client->send(std::string(request) + "\n");
      ASSERT_TRUE(eventually([&] { return service_.lasting.load(); })) << request;
      std::this_thread::sleep_for(milliseconds(20));
      EXPECT_FALSE(service_.told_gone) << "it is there";
    }
    EXPECT_TRUE(eventually([&] { return service_.told_gone.load(); })) << request;
  }
}

TEST_F(ControlServerTest, a_client_that_only_ends_its_sending_is_still_there) {
  serve();
  service_.lasts = true;
  RawClient client(socket_);
  client.send("{\"verb\":\"wait\"}\n");
  client.end_sending();
  ASSERT_TRUE(eventually([&] { return service_.lasting.load(); }));
  EXPECT_EQ(client.answer()["progress"], 0.5);
  service_.lasts = false;
  std::string line;
  while ((line = client.line()).starts_with("{\"progress")) {
  }
  EXPECT_EQ(line, R"({"result":{}})");
  EXPECT_FALSE(service_.told_gone);
}

TEST_F(ControlServerTest, the_servers_end_ends_what_lasts_and_says_so) {
  serve();
  service_.lasts = true;
  RawClient waits(socket_), verifies(socket_), silent(socket_);
  waits.send("{\"verb\":\"wait\"}\n");
  verifies.send("{\"verb\":\"verify\",\"source\":\"a\",\"target\":\"b\"}\n");
  EXPECT_TRUE(silent.ask(R"({"verb":"status"})").contains("result"));
  ASSERT_TRUE(eventually([&] { return service_.calls().size() == 3; }));
  server_.reset();
  for (RawClient *client : {&waits, &verifies, &silent}) {
    std::string line;
    while ((line = client->line()).starts_with("{\"progress")) {
    }
    EXPECT_EQ(line, R"({"refused":"the mirrord service is ending"})");
    EXPECT_EQ(client->line(), "");
  }
  EXPECT_FALSE(std::filesystem::exists(socket_));
}

TEST_F(ControlServerTest, the_server_ends_although_a_client_does_not_read) {
  serve();
  service_.differences.assign(5000, {std::string(100, 'p'), "data", "bytes 0 to 4095"});
  RawClient stuck(socket_);
  stuck.send("{\"verb\":\"verify\",\"source\":\"data\",\"target\":\"copy\"}\n");
  ASSERT_TRUE(eventually([&] { return service_.lasting.load(); }));
  const auto before = LineStream::Clock::now();
  server_.reset();
  EXPECT_LT(LineStream::Clock::now() - before, ControlLimits().patience);
}

/* What another user gets who connects, and sends a request. */
std::string answer_to_user(const std::string &socket, uid_t user) {
  int ends[2];
  if (pipe(ends) != 0) return "no pipe";
  const pid_t child = fork();
  if (child == 0) {
    std::string answer = "cannot connect";
    if (setresgid(user, user, user) != 0 || setresuid(user, user, user) != 0) _exit(1);
    UniqueFd own(::socket(AF_UNIX, SOCK_STREAM, 0));
    const sockaddr_un address = address_of(socket);
    if (connect(own.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0) {
      send(own.get(), "{\"verb\":\"pause\"}\n", 17, MSG_NOSIGNAL);
      char bytes[4096];
      const ssize_t got = recv(own.get(), bytes, sizeof(bytes), 0);
      answer.assign(bytes, got > 0 ? static_cast<std::size_t>(got) : 0);
    }
    _exit(write(ends[1], answer.data(), answer.size()) < 0);
  }
  close(ends[1]);
  char bytes[4096];
  const ssize_t got = read(ends[0], bytes, sizeof(bytes));
  close(ends[0]);
  waitpid(child, nullptr, 0);
  return {bytes, got > 0 ? static_cast<std::size_t>(got) : 0};
}

TEST_F(ControlServerTest, other_users_are_refused) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  serve();
  EXPECT_EQ(answer_to_user(socket_, 65534), "cannot connect") << "by the mode already";
  // Even if somebody opens it to all.
  std::filesystem::permissions(socket_, std::filesystem::perms::all);
  const std::string answer = answer_to_user(socket_, 65534);
  EXPECT_NE(answer.find("refused"), std::string::npos) << answer;
  EXPECT_NE(answer.find("user 65534 may not ask"), std::string::npos) << answer;
  EXPECT_TRUE(service_.calls().empty());
  EXPECT_EQ(answer_to_user(socket_, 0), "{\"result\":{}}\n");
}

/* Both ends of a connection. */
struct Ends {
  Ends() {
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds) != 0)
      throw std::runtime_error("no socket pair");
  }
  int fds[2];
};

TEST(LineStreamTest, what_may_be_left_out_never_waits_and_never_cuts_a_line) {
  Ends ends;
  LineStream writer{UniqueFd(ends.fds[0])}, reader{UniqueFd(ends.fds[1])};
  const std::string line(50'000, 'x');
  for (int i = 0; i < 1000; ++i) writer.offer(line + "\n");
  ASSERT_TRUE(reader.read_line(60'000, {}).ok());
  std::thread answer([&] { EXPECT_TRUE(writer.write("end\n", std::chrono::seconds(60)).ok()); });
  int whole = 1;
  for (;;) {
    const auto got = reader.read_line(60'000, LineStream::Clock::now() + std::chrono::minutes(1));
    ASSERT_TRUE(got.ok() && *got);
    if (**got == "end") break;
    ASSERT_EQ(**got, line);
    ++whole;
  }
  answer.join();
  EXPECT_LT(whole, 1000) << "not all had room";
}

TEST(LineStreamTest, lines_come_whole_however_they_are_cut) {
  Ends ends;
  const UniqueFd writer(ends.fds[0]);
  LineStream reader{UniqueFd(ends.fds[1])};
  for (const char byte : std::string("a\n\nbc\r\n")) ASSERT_EQ(write(writer.get(), &byte, 1), 1);
  EXPECT_EQ(**reader.read_line(2, {}), "a");
  EXPECT_EQ(**reader.read_line(2, {}), "");
  EXPECT_EQ(reader.read_line(2, {}).error().code, -EMSGSIZE) << "bc and a carriage return";
}

}  // namespace
}  // namespace tarn
