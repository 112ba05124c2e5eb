/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A replica's talk with its source's host, beside what its engine asks about files: which source it
 * is, walks, reports. A thread of its own, so that a host that does not answer holds nothing up.
 *
 * A walk is asked for again until its end has come through the stream: when mirrord on the source's
 * host was started anew, which has forgotten it, and from time to time if its beginning does not
 * come.
 */
#ifndef TARN_MIRRORD_SERVICE_SOURCE_CONTACT_H
#define TARN_MIRRORD_SERVICE_SOURCE_CONTACT_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "base/mutex.h"
#include "mirrord/log/log.h"
#include "mirrord/remote/remote_source.h"
#include "mirrord/service/connection_problem.h"
#include "mirrord/service/walks.h"

namespace tarn {

class SourceContact final : public Walks {
 public:
  struct Options {
    std::string about;   /* for messages */
    std::string replica; /* its name */
    /* Does what is sent to the stream from now on come here? Before that, a walk would be lost. */
    std::function<bool()> follows;
    /* What there is to report; nothing: its place in the stream is not known. */
    std::function<std::optional<remote::ReportQuestion>()> report;
  };
  SourceContact(Options options, Requests &requests)
      : options_(std::move(options)), conversation_(requests) {}
  ~SourceContact() override;
  SourceContact(const SourceContact &) = delete;
  SourceContact &operator=(const SourceContact &) = delete;

  void start();
  /* Ends the thread; any number of times. */
  void stop() EXCLUDES(mutex_);

  /* Any thread. */
  void request(const std::string &target, std::int64_t since, LogPosition from) override
      EXCLUDES(mutex_);
  /* An entry has come and is at this position of the replica's log. */
  void came(const LogEntry &entry, LogPosition position) EXCLUDES(mutex_);

  /* What the source's host has said of the source last; nothing: nothing yet. */
  std::optional<remote::AboutAnswer> source() const EXCLUDES(mutex_);
  /* Why it does not answer at present; "": it does. */
  std::string problem() const { return problem_.text(); }

 private:
  using Clock = std::chrono::steady_clock;
  struct Wanted {
    std::string target; /* its name in walks */
    std::int64_t since = 0;
    LogPosition from = 0;
    std::optional<std::uint64_t> walk = {}; /* the one that serves it has begun */
    std::uint64_t asked_of = 0;             /* the run; 0: not asked for */
    Clock::time_point again = {};           /* if it has not begun by then */
    Clock::duration pause = std::chrono::seconds(30);
  };

  void run();
  Result<void> learn();
  Result<void> ask_for_walk();
  Result<void> report();

  const Options options_;
  Conversation conversation_; /* the thread's own, like these */
  std::vector<std::byte> message_;
  Clock::time_point learned_at_{}, reported_at_{};

  ConnectionProblem problem_{options_.about, "the source's host answers"};

  std::thread thread_;
  mutable Mutex mutex_;
  Condition changed_;
  bool stop_ GUARDED_BY(mutex_) = false;
  bool hurry_ GUARDED_BY(mutex_) = false;
  std::optional<Wanted> wanted_ GUARDED_BY(mutex_);
  std::optional<remote::AboutAnswer> source_ GUARDED_BY(mutex_);
};

}  // namespace tarn

#endif
