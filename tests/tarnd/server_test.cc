// SPDX-License-Identifier: GPL-2.0
#include "tarnd/channel/server.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <cerrno>
#include <stdexcept>
#include <thread>

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

char ask(const UniqueFd &fd, char question) {
  char answer = 0;
  EXPECT_EQ(send(fd.get(), &question, 1, 0), 1);
  EXPECT_EQ(recv(fd.get(), &answer, 1, 0), 1);
  return answer;
}

TEST(Server, ServesConnectionsSideBySide) {
  Listener listener;
  Server server(listener.take(), echo);
  server.start();
  const UniqueFd a = listener.connect();
  const UniqueFd b = listener.connect();
  EXPECT_EQ(ask(b, 'b'), 'b');
  EXPECT_EQ(ask(a, 'a'), 'a');
}

TEST(Server, StopEndsConnectionsThatWait) {
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

TEST(Server, StopLetsAConnectionSayItsLast) {
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

TEST(Server, StopEndsConnectionsWhosePeerDoesNotRead) {
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

TEST(Server, AnErrorEndsItsConnectionOnly) {
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

TEST(Server, StopWithoutStart) {
  Listener listener;
  Server server(listener.take(), echo);
  server.stop();
}

}  // namespace
}  // namespace tarnd
