/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What a publisher and a consumer ask the servers about their stream. Short-lived: made for a
 * connection, and given up after the first error. One thread at a time.
 *
 * Errors: -ENOTCONN: the servers do not answer, for now; -ENOENT: there is no such stream; -EINVAL:
 * the stream is not ours, or the servers cannot have it as configured; -ENOSPC: no room for it.
 */
#ifndef TARN_MIRRORD_STREAM_ENGINE_H
#define TARN_MIRRORD_STREAM_ENGINE_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "mirrord/stream/connection.h"
#include "mirrord/stream/format.h"
#include "mirrord/stream/nats_owner.h"

namespace tarn {

class Engine {
 public:
  static Result<std::unique_ptr<Engine>> open(Connection &connection);

  natsConnection *connection() const { return connection_.get(); }
  jsCtx *context() const { return context_.get(); }
  /* Which one it was: see Connection::losses(). */
  std::uint64_t losses() const { return losses_; }
  /* What a message may have, with its headers. */
  std::size_t message_max() const;
  const std::string &subject() const { return subject_; }

  /* Makes the stream, or checks that the one that is there has what is essential: file storage,
   * no message dropped for a new one, our subject, the configured number of copies and bytes. */
  Result<void> ensure_stream();

  struct Extent {
    std::uint64_t first = 1, last = 0; /* sequence numbers, also of messages that are gone */
    std::uint64_t messages = 0;
    std::int64_t last_time = 0; /* of the last one, which the servers gave it */
  };
  Result<Extent> extent();

  struct Stored {
    std::uint64_t sequence = 0;
    std::string id = {};   /* of the message's header; "": it has none */
    bool readable = false; /* the rest is known */
    Uuid log = {};
    std::uint32_t run = 0;
    StreamPlace place = {}, behind = {};
    Uuid epoch() const { return stream_epoch(log, run); }
    bool is_of(const Uuid &epoch) const { return readable && this->epoch() == epoch; }
  };
  /* The last message that is there. */
  Result<std::optional<Stored>> last(const Extent &extent);

  /*
   * The number of the first message of this epoch that has the entry, or one behind it; one more
   * than the last number if there is none. The epoch is that of the last message.
   */
  Result<std::uint64_t> find(const Uuid &epoch, LogPosition position);
  /* The message of that number, or the first one behind it. */
  Result<std::optional<Stored>> at(std::uint64_t sequence, std::uint64_t last);

  /* Removes the messages before that number. */
  Result<void> purge(std::uint64_t sequence);

  /* Asks the stream's leader to leave that to another server. */
  Result<void> change_leader();
  /* With all its messages and consumers. */
  Result<void> remove_stream();

  /* What went wrong with the stream. */
  Error error(const std::string &what, natsStatus status, int code) const;

 private:
  Engine(std::shared_ptr<natsConnection> connection, NatsOwner<jsCtx> context, std::uint64_t losses,
         const StreamConfig &config, std::string subject);

  Result<NatsOwner<jsStreamInfo>> info();
  Result<void> check(const jsStreamConfig &there) const;
  Stored read(natsMsg &message);

  const std::shared_ptr<natsConnection> connection_;
  const NatsOwner<jsCtx> context_;
  const std::uint64_t losses_;
  const StreamConfig &config_; /* the connection's */
  const std::string subject_;
  MessageDecoder decoder_;
};

}  // namespace tarn

#endif
