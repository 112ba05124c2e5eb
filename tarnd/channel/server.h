/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Accepts connections on a listening socket and serves each on a thread of its own.
 *
 * start() once, stop() once. stop() shuts the connections down for reading, after a second for
 * writing as well, and joins their threads. That ends a serve function which only blocks on its
 * socket. An error or an exception of a serve function ends its connection and goes to standard
 * error. Connections of unprivileged users beyond their limit (peer_count.h) are closed at once.
 */
#ifndef TARND_CHANNEL_SERVER_H
#define TARND_CHANNEL_SERVER_H

#include <functional>
#include <set>
#include <thread>

#include "base/mutex.h"
#include "base/result.h"
#include "base/unique_fd.h"
#include "tarnd/channel/peer_count.h"
#include "tarnd/process/limited_warning.h"
#include "tarnd/process/task.h"

namespace tarnd {

class Server {
 public:
  using Serve = std::function<tarn::Result<void>(int connection, const Identity &peer)>;

  Server(tarn::UniqueFd listener, Serve serve);
  ~Server() { stop(); }
  Server(const Server &) = delete;
  Server &operator=(const Server &) = delete;

  void start();
  void stop() EXCLUDES(mutex_);

 private:
  void accept_all() EXCLUDES(mutex_);
  void serve_one(tarn::UniqueFd connection) EXCLUDES(mutex_);
  tarn::Result<void> serve_peer(int connection);

  tarn::UniqueFd listener_;
  Serve serve_;
  std::thread acceptor_;
  PeerCount unprivileged_;
  LimitedWarning refused_, closed_;

  tarn::Mutex mutex_;
  tarn::Condition ended_;
  std::set<int> open_ GUARDED_BY(mutex_);  // connections that are being served
  bool stopping_ GUARDED_BY(mutex_) = false;
};

}  // namespace tarnd

#endif
