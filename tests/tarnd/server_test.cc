// SPDX-License-Identifier: GPL-2.0
#include "tarnd/channel/server.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <cerrno>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace tarnd {
namespace {

using tarn::Result;
using tarn::UniqueFd;

// A listening socket without a name in the file system, and connections to it.
class Listener {
 public:
  Listener() {
    fd_ = UniqueFd(socket(AF_UNIX, SOCK_SEQPACKET, 0));
    sockaddr_un any{};
    any.sun_family = AF_UNIX;
    EXPECT_EQ(bind(fd_.get(), reinterpret_cast<sockaddr *>(&any), sizeof(any.sun_family)), 0);
    EXPECT_EQ(listen(fd_.get(), 8), 0);
    len_ = sizeof(addr_);
    EXPECT_EQ(getsockname(fd_.get(), reinterpret_cast<sockaddr *>(&addr_), &len_), 0);
  }
  UniqueFd take() { return std::move(fd_); }
  UniqueFd connect() const {
    UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET, 0));
    EXPECT_EQ(::connect(fd.get(), reinterpret_cast<const sockaddr *>(&addr_), len_), 0);
    return fd;
  }
  bool accepts() const {
    const UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0));
    return ::connect(fd.get(), reinterpret_cast<const sockaddr *>(&addr_), len_) == 0 ||
           errno != ECONNREFUSED;
  }

 private:
  UniqueFd fd_;
  sockaddr_un addr_{};
  socklen_t len_ = 0;
};

Result<void> echo(int fd, const Identity &) {
  char buf[16];
  for (ssize_t n; (n = recv(fd, buf, sizeof(buf), 0)) > 0;)
    send(fd, buf, static_cast<size_t>(n), MSG_NOSIGNAL);
  return {};
}

char ask(const UniqueFd &to, const UniqueFd &from, char question) {
  char answer = 0;
  EXPECT_EQ(send(to.get(), &question, 1, MSG_NOSIGNAL), 1);
  EXPECT_EQ(recv(from.get(), &answer, 1, 0), 1);
  return answer;
}

char ask(const UniqueFd &fd, char question) {
  return ask(fd, fd, question);
}

TEST(Server, serves_connections_side_by_side) {
  Listener listener;
  Server server(listener.take(), echo);
  server.start();
  const UniqueFd a = listener.connect();
  const UniqueFd b = listener.connect();
  EXPECT_EQ(ask(b, 'b'), 'b');
  EXPECT_EQ(ask(a, 'a'), 'a');
}

TEST(Server, stop_ends_connections_that_wait) {
  Listener listener;
  std::atomic<int> ended = 0;
  Server server(listener.take(), [&](int fd, const Identity &peer) {
    auto echoed = echo(fd, peer);
    ended++;
    return echoed;
  });
  server.start();
  const UniqueFd a = listener.connect();
  const UniqueFd b = listener.connect();
  ask(a, 'a');
  ask(b, 'b');
  server.stop();
  EXPECT_EQ(ended, 2);
}

TEST(Server, stop_lets_a_connection_say_its_last) {
  Listener listener;
  Server server(listener.take(), [](int fd, const Identity &peer) {
    auto echoed = echo(fd, peer);
    send(fd, "!", 1, MSG_NOSIGNAL);
    return echoed;
  });
  server.start();
  const UniqueFd a = listener.connect();
  ask(a, 'a');
  server.stop();
  char last = 0;
  EXPECT_EQ(recv(a.get(), &last, 1, 0), 1);
  EXPECT_EQ(last, '!');
}

TEST(Server, stop_ends_connections_whose_peer_does_not_read) {
  Listener listener;
  std::atomic<bool> blocked = false;
  Server server(listener.take(), [&](int fd, const Identity &) {
    char data[4096] = {};
    while (send(fd, data, sizeof(data), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
    }
    blocked = true;
    while (send(fd, data, sizeof(data), MSG_NOSIGNAL) > 0) {
    }
    return Result<void>();
  });
  server.start();
  const UniqueFd a = listener.connect();
  while (!blocked) std::this_thread::yield();
  server.stop();
}

TEST(Server, an_error_ends_its_connection_only) {
  Listener listener;
  Server server(listener.take(), [](int fd, const Identity &) -> Result<void> {
    char c = 0;
    if (recv(fd, &c, 1, 0) == 1 && c == 'x') return tarn::Error{-EIO, "as the test wants"};
    if (c == 'y') throw std::runtime_error("as the test wants");
    send(fd, &c, 1, MSG_NOSIGNAL);
    return {};
  });
  server.start();
  const UniqueFd b = listener.connect();
  for (char c : {'x', 'y'}) {
    const UniqueFd failing = listener.connect();
    EXPECT_EQ(send(failing.get(), &c, 1, 0), 1);
    EXPECT_EQ(recv(failing.get(), &c, 1, 0), 0);
  }
  EXPECT_EQ(ask(b, 'b'), 'b');
}

// While it exists no thread can be made: there is no room for its stack.
class NoThreads {
 public:
  NoThreads() {
    pthread_getattr_default_np(&before_);
    pthread_attr_t huge = before_;
    pthread_attr_setstacksize(&huge, std::size_t{1} << 50);
    EXPECT_EQ(pthread_setattr_default_np(&huge), 0);
  }
  ~NoThreads() { EXPECT_EQ(pthread_setattr_default_np(&before_), 0); }
  NoThreads(const NoThreads &) = delete;
  NoThreads &operator=(const NoThreads &) = delete;

 private:
  pthread_attr_t before_;
};

// While it exists, what writes to standard error waits until drain().
class FullStandardError {
 public:
  FullStandardError() : before_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)) {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    read_end_ = UniqueFd(ends[0]);
    const UniqueFd write_end(ends[1]);
    while (write(write_end.get(), &filler_, sizeof(filler_)) > 0) {
    }
    EXPECT_EQ(fcntl(write_end.get(), F_SETFL, 0), 0);
    dup2(write_end.get(), STDERR_FILENO);
  }
  ~FullStandardError() { drain(); }
  FullStandardError(const FullStandardError &) = delete;
  FullStandardError &operator=(const FullStandardError &) = delete;

  void drain() {
    while (read(read_end_.get(), &filler_, sizeof(filler_)) > 0) {
    }
    if (before_) dup2(before_.get(), STDERR_FILENO);
    before_.reset();
  }

 private:
  UniqueFd before_, read_end_;
  char filler_[4096] = {};
};

TEST(Server, stop_shuts_nothing_down_that_has_the_number_of_a_refused_connection) {
  Listener listener;
  Server server(listener.take(), echo);
  server.start();
  FullStandardError full;
  {
    const NoThreads none;
    const UniqueFd refused = listener.connect();
    char c = 0;
    ASSERT_EQ(recv(refused.get(), &c, 1, 0), 0);
  }
  // The server is about to say so. More sockets than numbers that have become free.
  std::vector<std::pair<UniqueFd, UniqueFd>> others;
  for (int i = 0; i < 4; i++) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
    others.emplace_back(ends[0], ends[1]);
  }
  std::thread stop([&] { server.stop(); });
  while (listener.accepts()) std::this_thread::yield();
  full.drain();
  stop.join();
  for (const auto &[one, other] : others) {
    EXPECT_EQ(ask(one, other, 'a'), 'a');
    EXPECT_EQ(ask(other, one, 'b'), 'b');
  }
}

TEST(Server, stop_without_start) {
  Listener listener;
  Server server(listener.take(), echo);
  server.stop();
}

}  // namespace
}  // namespace tarnd
