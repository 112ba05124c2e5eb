/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Requests from host to host over the servers of a stream: bytes in, bytes out, at most as many as
 * the servers' limit of a message, 1 MiB unless they say otherwise. A request may arrive, and
 * its reply be lost: what it asks for has to be harmless when it is done twice.
 */
#ifndef TARN_MIRRORD_STREAM_REQUESTS_H
#define TARN_MIRRORD_STREAM_REQUESTS_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "base/result.h"
#include "client/messages.h"
#include "mirrord/stream/connection.h"

namespace tarn {

/* Asks. Any thread. The connection must outlive it. */
class RequestSender {
 public:
  RequestSender(Connection &connection, std::string subject)
      : connection_(connection), subject_(std::move(subject)) {}

  /* Errors: -ENOTCONN: this host is not connected; -EHOSTUNREACH: nobody there; -ETIMEDOUT; and
   * -EMSGSIZE: more than the servers take. */
  Result<std::vector<std::byte>> ask(Bytes request, std::chrono::milliseconds timeout);

 private:
  Connection &connection_;
  const std::string subject_;
};

/*
 * Answers, in a thread of its own, one request at a time, as long as it exists and whenever there
 * is a connection. Several servers of a subject, in whichever process, share its requests. The
 * connection must outlive it.
 */
class RequestServer {
 public:
  using Handler = std::function<std::vector<std::byte>(Bytes request)>;
  RequestServer(Connection &connection, std::string subject, Handler handler);
  /* Waits for the handler. */
  ~RequestServer();
  RequestServer(const RequestServer &) = delete;
  RequestServer &operator=(const RequestServer &) = delete;

  /* Why no request arrives at present; "" if it listens. */
  std::string problem() const EXCLUDES(mutex_);

 private:
  void run();
  bool serve(natsConnection &connection, natsSubscription &subscription);
  void answer(natsConnection &connection, natsMsg &request);
  void set_problem(const std::string &text) EXCLUDES(mutex_);
  bool sleep() EXCLUDES(mutex_);

  Connection &connection_;
  const std::string subject_;
  const Handler handler_;
  mutable Mutex mutex_;
  Condition changed_;
  bool stop_ GUARDED_BY(mutex_) = false;
  std::string problem_ GUARDED_BY(mutex_) = "it has not connected yet";
  std::atomic<bool> ending_ = false;
  std::thread thread_;
};

}  // namespace tarn

#endif
