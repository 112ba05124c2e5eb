/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Takes the module's messages and gives each source's records to its log, in the order of their
 * numbers. Keeps the module's rules as the sources need them, connects again when tarnd is
 * restarted, and declares a gap for all that cannot have arrived.
 *
 * A mark is asked for by request_mark(), and by itself after changes: as soon as no more come, and
 * every second while they do. One thread, run()'s; the functions marked so may be called by others.
 */
#ifndef TARN_MIRRORD_SERVICE_RECEIVER_H
#define TARN_MIRRORD_SERVICE_RECEIVER_H

#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "client/daemon.h"
#include "client/pipe.h"
#include "client/sequence.h"
#include "mirrord/config/rule_keeper.h"
#include "mirrord/service/intake.h"

namespace tarn {

class Receiver : private Sequencer::Sink {
 public:
  struct FromSource {
    std::string name;
    Intake *intake;
  };
  struct Channel {
    Claim claim = Claim::kRefuseIfTaken;            /* at the first attempt; never again later */
    ChannelStore *store = nullptr;                  /* or null */
    std::unique_ptr<DaemonChannel> early = nullptr; /* is open already */
  };
  static Result<std::unique_ptr<Receiver>> open(Site site, RuleKeeper keeper,
                                                const std::vector<FromSource> &sources,
                                                Channel channel);

  /* Until stop(); then unregisters and takes what the module has sent before. With a store that
   * keeps the channel it stays registered, and the next process takes what comes. */
  void run();

  /* Any thread. */
  void stop();
  /* Any thread. Returns the number of a mark that will be behind all changes made before the call;
   * nothing if the module is not connected. */
  std::optional<std::uint64_t> request_mark() EXCLUDES(mutex_);
  /* Any thread. Until it has connected for the first time, or failed to. */
  void wait_for_attempt() EXCLUDES(mutex_);
  /* Any thread. "": connected; else why not. */
  std::string problem() const EXCLUDES(mutex_);
  /* Any thread. Has the module stopped capturing for the rule, which is being added anew? */
  bool stopped(const Uuid &rule) const EXCLUDES(mutex_);

 private:
  using Clock = std::chrono::steady_clock;

  Receiver(Site site, RuleKeeper keeper, Pipe wake, Channel channel)
      : site_(std::move(site)),
        keeper_(std::move(keeper)),
        wake_(std::move(wake)),
        store_(channel.store),
        claim_(channel.claim),
        early_(std::move(channel.early)) {}

  void record(const Record &record, Bytes packet, Sequencer::Order order) override;
  void event(const Uuid &rule, const Sequencer::Event &event) override;

  bool connect();
  void disconnect(const std::string &why);
  Result<void> keep_rules();
  void note_added(const RuleKeeper::Changed &changed);
  void find_missing(const std::vector<Uuid> &kept);
  void renew_stopped();
  void receive();
  void packet(Bytes packet, Clock::time_point now);
  void losses(const DaemonChannel::Received &received);
  MarkEntry next_mark() EXCLUDES(mutex_);
  void send_barrier();
  void take_rest(std::string why);
  bool drain();
  void append_marks(std::uint64_t barriers);
  bool take_all();
  void leave();
  void pass_on();
  void note_stopped() EXCLUDES(mutex_);
  void take(const DaemonChannel::Received &received);
  Clock::duration until_next() const;
  bool changed_since_mark() const;
  void set_problem(const std::string &problem) EXCLUDES(mutex_);
  void note_attempt() EXCLUDES(mutex_);
  void drain_wake();

  const Site site_;
  RuleKeeper keeper_;
  const Pipe wake_;
  ChannelStore *const store_; /* or null */
  Claim claim_;
  std::map<Uuid, FromSource> sources_;

  std::unique_ptr<DaemonChannel> early_, channel_;
  std::optional<Sequencer> sequencer_;
  std::size_t malformed_ = 0;        /* messages since the last look at losses */
  bool foreign_said_ = false;        /* that others send messages */
  std::set<Uuid> unfinished_writes_; /* rules of which a page, but not the last, was logged */
  Clock::time_point kept_at_{}, marked_at_{};
  struct Barrier {
    std::uint64_t barrier;
    MarkEntry mark;
  };
  std::deque<Barrier> barriers_; /* without an answer */
  std::atomic<bool> stop_ = false;

  mutable Mutex mutex_;
  Condition attempted_changed_;
  bool attempted_ GUARDED_BY(mutex_) = false;
  std::string problem_ GUARDED_BY(mutex_) = "not connected yet";
  std::uint64_t mark_wanted_ GUARDED_BY(mutex_) = 0; /* the highest number asked for */
  std::uint64_t mark_sent_ GUARDED_BY(mutex_) = 0;
  std::set<Uuid> stopped_ GUARDED_BY(mutex_);
};

}  // namespace tarn

#endif
