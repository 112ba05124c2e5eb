/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Sends the entries of a log to a stream, in order, without a hole and each once, for ever: what
 * the last message of the stream says is where it goes on, after every start, error and new
 * connection. So it keeps no position of its own, and an engine that has lost its end gets it
 * again.
 *
 * Each message names its predecessor by id, the first one after a look at the stream by number, and
 * the servers refuse it behind any other. Messages are sent ahead of their acknowledgements; when
 * one is refused or gets no answer, those behind it are refused too, and the stream is looked at
 * anew. A stream that is full, or servers that are away, keep the publisher at its place.
 *
 * When the stream's last message is not of the log (another log's, or the log was restored from a
 * backup and ends before it), it goes on with the log's first entry in a new run (format.h), which
 * receivers notice.
 *
 * Servers may contradict themselves: before NATS 2.9.19, one that has lost its end and then removes
 * what every replica has counts from where it was, not from where it says. What they refuse for
 * long behind the very message that they call the last one, they are asked to have led by another
 * of them, and then the stream is made anew from the log.
 *
 * What the servers have lost in the middle of the stream, the replicas notice: from there on all is
 * sent again behind the last message, with the positions it had. Replicas that have it drop it.
 *
 * One thread runs it; the other functions may be called by any.
 */
#ifndef TARN_MIRRORD_STREAM_PUBLISHER_H
#define TARN_MIRRORD_STREAM_PUBLISHER_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>

#include "base/mutex.h"
#include "mirrord/stream/engine.h"
#include "mirrord/stream/packer.h"

namespace tarn {

/* The entries that a publisher sends: a log, as far as it cannot be lost any more. Called by the
 * publisher's thread. */
class EntryReader {
 public:
  virtual ~EntryReader() = default;
  virtual const Uuid &epoch() const = 0;
  virtual LogPosition first() const = 0;
  virtual LogPosition end() const = 0;
  /* The entry, or the first one behind it if it is gone; nothing at the end. Valid until the next
   * call. */
  virtual Result<std::optional<LogEntry>> read(LogPosition position) = 0;
  /* Until there is an entry at `end`, or for that time. */
  virtual void wait(LogPosition end, std::chrono::milliseconds time) = 0;
};

class StreamPublisher {
 public:
  struct Options {
    std::uint32_t run = 0;
    /* Of the log when it was opened: what lies behind it was not sent by this object before its
     * first look, even if the log has grown beyond it since. */
    LogPosition log_end = std::numeric_limits<LogPosition>::max();
    /* Keeps the number of a run that begins for Options::run of later publishers of the log; on an
     * error it does not begin. */
    std::function<Result<void>(std::uint32_t run)> keep_run;
    /* One line for the administrator. */
    std::function<void(const std::string &text)> say;
    /* How long the servers may contradict themselves before another is asked to lead; the stream is
     * made anew after four times that. */
    std::chrono::milliseconds patience = std::chrono::seconds(5);
  };
  StreamPublisher(Connection &connection, EntryReader &entries, Options options);
  ~StreamPublisher();
  StreamPublisher(const StreamPublisher &) = delete;
  StreamPublisher &operator=(const StreamPublisher &) = delete;

  /* Until stop(). */
  void run();
  void stop() { stop_ = true; }

  enum class State { kStarting, kAway, kFull, kFollowing };
  struct Status {
    State state = State::kStarting;
    std::string error = {};   /* "" while it follows */
    LogPosition position = 0; /* the stream has all entries before it; 0: not known */
    std::uint64_t gaps = 0;   /* holes that this object has left in the stream, and new runs */
    std::uint64_t entries = 0, messages = 0, bytes = 0; /* acknowledged */
  };
  Status status() const EXCLUDES(mutex_);

  /* No replica needs the entries before this position: their messages are removed sometime. */
  void release(LogPosition before) { release_ = before; }

  /* The stream lacks the entry for a replica that has looked at its messages up to the number
   * `seen`: it is sent again with all that follow, unless that was begun behind `seen`. The log has
   * to have it. */
  void send_again(LogPosition from, std::uint64_t seen) EXCLUDES(mutex_);

 private:
  using Clock = std::chrono::steady_clock;
  struct InFlight {
    StreamPlace behind;
    std::size_t bytes = 0;
    Clock::time_point sent;
    bool acknowledged = false;
  };

  void step();
  Result<void> attach();
  Result<void> find_place();
  Result<void> begin_run(const Engine::Stored &last);
  bool asked_again() const EXCLUDES(mutex_);
  Result<void> go_back() EXCLUDES(mutex_);
  void went_back() REQUIRES(mutex_);
  Result<void> listen();
  void detach();
  void fail(State state, const std::string &error) EXCLUDES(mutex_);
  bool has_room() const;
  Result<std::optional<PackedMessage>> next_message();
  Result<void> send(const PackedMessage &message);
  Result<void> take_replies(std::chrono::milliseconds time) EXCLUDES(mutex_);
  Result<void> take_reply(natsMsg &reply) EXCLUDES(mutex_);
  void first_refused();
  Result<void> idle();
  Result<void> purge();
  void following() EXCLUDES(mutex_);
  void gap(const std::string &text) EXCLUDES(mutex_);
  void skipped(LogPosition end) EXCLUDES(mutex_);
  void pause(std::chrono::milliseconds time);

  Connection &connection_;
  EntryReader &entries_;
  const Options options_;
  std::atomic<bool> stop_ = false;
  std::atomic<LogPosition> release_ = 0;

  /* The thread's own. */
  std::uint32_t run_;
  std::unique_ptr<Engine> engine_;
  NatsOwner<natsSubscription> replies_; /* before engine_ ends */
  std::string inbox_;
  std::optional<Packer> packer_;
  StreamPlace place_;              /* of the next message */
  bool found_place_ = false;       /* once, in the stream */
  std::string last_id_;            /* "": the next message names its predecessor by number */
  std::uint64_t last_ = 0;         /* the number of the last message sent */
  std::uint64_t answered_ = 0;     /* and of the last one that is acknowledged with all before it */
  std::deque<InFlight> in_flight_; /* those behind answered_ */
  std::size_t bytes_in_flight_ = 0;
  bool taken_ = false; /* something since the stream was looked at */
  /* The first and the last time that the first message was refused, behind which number. */
  Clock::time_point refused_since_{}, refused_{};
  std::uint64_t refused_behind_ = 0;
  bool asked_for_leader_ = false; /* since then */
  Clock::time_point looked_{}, purged_{};
  LogPosition released_ = 0;
  std::optional<LogPosition> going_back_; /* begin_again_, until the stream has a message of it */
  LogPosition back_until_ = 0;            /* the stream's end then */
  bool make_room_ = false, made_room_ = false; /* for what lies before it, once */
  std::string said_;

  mutable Mutex mutex_;
  Status status_ GUARDED_BY(mutex_);
  std::optional<LogPosition> begin_again_ GUARDED_BY(mutex_); /* asked for */
  /* Where the last time begins in the log and in the stream; 0: it is not known any more. */
  LogPosition again_from_ GUARDED_BY(mutex_) = 0;
  std::uint64_t again_at_ GUARDED_BY(mutex_) = 0;
};

}  // namespace tarn

#endif
