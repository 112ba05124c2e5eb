/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A connection to the servers of a stream, made again for ever when it is lost. Whatever uses it
 * asks for it each time and treats "not connected" as a state, not as a failure.
 *
 * With certificates in the configuration it is TLS 1.3, both sides show theirs, and the server's
 * has to be issued by the configured authority for the name in the configuration, which is a host
 * name. Files are read at each new connection, so that they may be replaced.
 *
 * Any thread. What it gives out keeps the connection open, and must be gone before the Connection.
 * Errors are one line: what failed, with which servers, and what to do.
 */
#ifndef TARN_MIRRORD_STREAM_CONNECTION_H
#define TARN_MIRRORD_STREAM_CONNECTION_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <nats/nats.h>

#include "base/mutex.h"
#include "base/result.h"
#include "mirrord/stream/nats_owner.h"
#include "mirrord/stream/stream_config.h"

namespace tarn {

class Connection {
 public:
  /* `client` is the name that the servers show for it. Connects when it is first used. */
  Connection(StreamConfig config, std::string client);
  ~Connection();
  Connection(const Connection &) = delete;
  Connection &operator=(const Connection &) = delete;

  /* The connection, if it is up. Tries to make it at most once a second, which takes a few seconds
   * when a server does not answer. Error -ENOTCONN. */
  Result<std::shared_ptr<natsConnection>> get() EXCLUDES(mutex_);

  /* Grows when a connection is lost: what was under way then may not have arrived. */
  std::uint64_t losses() const { return losses_; }

  const StreamConfig &config() const { return config_; }
  /* "tarn.STREAM.WHAT" */
  std::string subject(const std::string &what) const;

 private:
  struct Link;
  Result<std::shared_ptr<Link>> connect() REQUIRES(mutex_);
  Error explain(natsStatus status, const std::string &detail) const;
  std::string servers() const;

  const StreamConfig config_;
  const std::string client_;
  std::atomic<std::uint64_t> losses_ = 0;
  Mutex mutex_;
  std::shared_ptr<Link> link_ GUARDED_BY(mutex_); /* or null */
  std::chrono::steady_clock::time_point next_try_ GUARDED_BY(mutex_){};
  std::string error_ GUARDED_BY(mutex_); /* of the last try */
};

/* Ends it, and then destroys it. The library's thread that reads may be using it (a message for one
 * that is destroyed meanwhile crashes version 3.4), but not behind what it reads next. */
void end_subscription(natsConnection *connection, NatsOwner<natsSubscription> subscription);

/* The text of a status that a function of the client library returned just now in this thread. */
std::string nats_text(natsStatus status);

}  // namespace tarn

#endif
