/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Accepts connections on a listening socket and serves each on a thread of its own.
 *
 * start() once, stop() once: it ends what the connections read, after a second also what they
 * write, and returns when their threads have ended, so that a serve function that only blocks on
 * its socket needs nothing else to end. Errors of a serve function, and what it throws, end its
 * connection and go to standard error. Users without privileges have a few connections each
 * (peer_count.h); what is more is closed at once.
 */
#ifndef TARND_CHANNEL_SERVER_H
#define TARND_CHANNEL_SERVER_H

#include <condition_variable>
#include <functional>
#include <mutex>
#include <set>
#include <thread>

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
  void stop();

 private:
  void accept_all();
  void serve_one(tarn::UniqueFd connection);
  tarn::Result<void> serve_peer(int connection);

  tarn::UniqueFd listener_;
  Serve serve_;
  std::thread acceptor_;
  PeerCount unprivileged_;
  LimitedWarning refused_, closed_;

  std::mutex mutex_;
  std::condition_variable ended_;
  std::set<int> open_;     // connections that are being served; under mutex_
  bool stopping_ = false;  // under mutex_
};

}  // namespace tarnd

#endif
