// SPDX-License-Identifier: GPL-2.0
#include "tarnd/channel/server.h"

#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <string>

#include "tarnd/channel/peer.h"

namespace tarnd {

using tarn::Condition;
using tarn::MutexLock;
using tarn::Result;
using tarn::UniqueFd;

// How long connections may finish their replies after stop().
static constexpr std::chrono::seconds kDrainTime{1};

Server::Server(UniqueFd listener, Serve serve)
    : listener_(std::move(listener)), serve_(std::move(serve)) {}

void Server::start() {
  acceptor_ = std::thread([this] { accept_all(); });
}

void Server::stop() {
  if (!acceptor_.joinable()) return;
  {
    const MutexLock lock(mutex_);
    stopping_ = true;
    shutdown(listener_.get(), SHUT_RDWR);
    for (int connection : open_) shutdown(connection, SHUT_RD);
  }
  acceptor_.join();
  MutexLock lock(mutex_);
  const auto limit = Condition::Clock::now() + kDrainTime;
  while (!open_.empty() && ended_.wait_until(lock, limit)) {
  }
  for (int connection : open_) shutdown(connection, SHUT_RDWR);
  while (!open_.empty()) ended_.wait(lock);
}

void Server::accept_all() {
  for (;;) {
    UniqueFd connection(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    MutexLock lock(mutex_);
    if (stopping_) return;
    if (!connection) {
      // Out of descriptors or memory: other connections will release some.
      ended_.wait_for(lock, std::chrono::milliseconds(100));
      continue;
    }
    const int fd = connection.get();
    open_.insert(fd);
    // Under the lock: a thread that cannot be made closes the connection, and stop() must not see
    // its number then, which may be reused at once.
    try {
      std::thread([this, moved = std::move(connection)]() mutable {
        serve_one(std::move(moved));
      }).detach();
    } catch (const std::exception &e) {
      open_.erase(fd);
      lock.unlock();
      refused_.print(std::string("connection refused: ") + e.what());
    }
  }
}

Result<void> Server::serve_peer(int connection) {
  const auto peer = peer_identity(connection);
  if (!peer) return peer.error();
  if (is_privileged(*peer)) return serve_(connection, *peer);
  if (!unprivileged_.enter(peer->uid)) return {};
  struct Leave {
    ~Leave() { count.leave(uid); }
    PeerCount &count;
    uid_t uid;
  } const leave{unprivileged_, peer->uid};
  return serve_(connection, *peer);
}

void Server::serve_one(UniqueFd connection) {
  try {
    if (auto served = serve_peer(connection.get()); !served)
      closed_.print("connection closed: " + served.error().text);
  } catch (const std::exception &e) {
    closed_.print(std::string("connection closed: ") + e.what());
  }
  // Erased before it is closed: the descriptor number may be reused at once. Notified under the
  // lock: stop() may return, and the object be destroyed, as soon as the lock is released.
  const MutexLock lock(mutex_);
  open_.erase(connection.get());
  connection.reset();
  ended_.notify_all();
}

}  // namespace tarnd
