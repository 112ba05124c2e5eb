/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Takes the entries of a log from its stream, in order, each once, from a position on that the
 * caller keeps. Messages that come again are dropped. At a hole it stops, and says what is missing;
 * the caller declares it, or has it sent again.
 *
 * The durable consumer at the servers is named after the replica. It is made anew, at the wanted
 * position, at the start and after every doubt (a lost connection, an error, a message that did not
 * arrive), so nothing depends on what the servers remember of it. Acknowledgements tell them, and
 * whoever looks there, what the replica has on its disk.
 *
 * One thread uses it.
 */
#ifndef TARN_MIRRORD_STREAM_CONSUMER_H
#define TARN_MIRRORD_STREAM_CONSUMER_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "mirrord/stream/assembler.h"
#include "mirrord/stream/engine.h"

namespace tarn {

class StreamConsumer {
 public:
  /* `replica` is a word, another one for each replica of the stream. Without a position it begins
   * at the stream's end. */
  StreamConsumer(Connection &connection, std::string replica, std::optional<StreamPosition> next);
  ~StreamConsumer();
  StreamConsumer(const StreamConsumer &) = delete;
  StreamConsumer &operator=(const StreamConsumer &) = delete;

  /*
   * The next entries, valid until the next call; none when none came within the time. Errors:
   * -ENODATA: there is a hole, until go_on() or await(); -ENOTCONN: the servers are away; -ENOENT:
   * there is no stream yet; -EINVAL, -EIO: the servers refuse something. After each of them it goes
   * on at the same place.
   */
  Result<std::vector<LogEntry>> fetch(std::chrono::milliseconds timeout);

  /* The entry that comes next; nothing before the first one came. */
  const std::optional<StreamPosition> &next() const { return assembler_.next(); }
  const std::optional<StreamHole> &hole() const { return assembler_.hole(); }
  /* Goes on behind the hole, which the caller has declared. */
  void go_on();
  /* What the hole lacks comes further on in the stream: until then fetch() has no entries. */
  void await() { assembler_.await(); }
  bool awaits() const { return assembler_.awaits(); }
  /* The number of the last message that came. */
  std::uint64_t received() const { return received_; }

  /* The replica has all entries before this position of next()'s epoch on its disk. */
  void acknowledge(LogPosition before);

  /* Removes the consumer at the servers: the replica is retired. */
  Result<void> remove();

 private:
  struct Given {
    LogPosition needs; /* acknowledged with all entries before it */
    std::string reply;
  };

  Result<void> attach();
  Result<std::uint64_t> place(const Engine::Extent &extent);
  Result<void> make_consumer(std::uint64_t first);
  void detach();
  void doubt();
  Result<bool> pull(std::chrono::milliseconds timeout);
  Result<void> ask(int count);
  Error fetching_failed(const std::string &why) const;
  void note_received(natsMsg &message);
  Result<void> look();

  Connection &connection_;
  const std::string replica_;
  Assembler assembler_;
  std::unique_ptr<Engine> engine_;
  NatsOwner<natsSubscription> subscription_; /* before engine_ ends */
  std::deque<NatsOwner<natsMsg>> pulled_;    /* not given yet */
  NatsOwner<natsMsg> current_;               /* what the caller's entries are views of */
  std::deque<Given> given_;                  /* not acknowledged */
  LogPosition doubted_ = 0;                  /* a hole here was looked at anew */
  std::string inbox_;                        /* where subscription_ gets messages */
  int owed_ = 0;                             /* messages that were asked for and did not come */
  std::uint64_t received_ = 0;               /* the last message's number; all before it came too */
  std::int64_t received_time_ = 0;           /* and the time that the servers gave it */
  std::optional<std::uint64_t> still_at_; /* received_ at a look, when the stream ended elsewhere */
  std::chrono::steady_clock::time_point asked_{}, looked_{};
};

}  // namespace tarn

#endif
