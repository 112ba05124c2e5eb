/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The daemon's main loop: receives the module's messages, puts the records of each rule in order,
 * applies them and keeps the status. Each problem is reported on stderr and counted; a record that
 * fails does not stop the next. One thread.
 */
#ifndef TARN_MIRRORD_MIRROR_H
#define TARN_MIRRORD_MIRROR_H

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "client/daemon.h"
#include "client/sequence.h"
#include "client/signal_pipe.h"
#include "mirrord/applier.h"
#include "mirrord/state.h"
#include "mirrord/status.h"

namespace tarn {

struct MirrorOptions {
  std::string source;
  std::string replica;
  std::set<Uuid> rules = {};    /* only these; empty: all */
  std::string status_file = {}; /* empty: none */
  std::string report_file = {}; /* a copy for `tarn status`; empty: none */
  RuleLists rule_lists = {};    /* the directories of each rule */
  /* How long to wait at the end for messages that the module has already sent. */
  std::chrono::milliseconds stop_timeout = std::chrono::seconds(30);
};

/* What a mirrord needs to detect changes made while none ran. */
struct Resumption {
  StateFile state;
  /* Makes the module number a record for each rule. Returns the rules for which it did, and the
   * reason for each other. */
  struct Touched {
    std::set<Uuid> rules;
    std::map<Uuid, std::string> failed;
  };
  std::function<Result<Touched>()> touch_rules;
  std::function<void()> registered; /* called once all losses before this run are declared */
};

class Mirror : private Sequencer::Sink {
 public:
  enum class End {
    kClean,    /* told to end; everything was applied */
    kProblems, /* told to end; there were problems */
    kChannel,  /* the channel was closed, or another daemon took over */
  };

  /* Without a resumption there is no state file: changes made before cannot be detected. */
  Mirror(MirrorOptions options, Replica &replica, DaemonChannel &channel,
         std::optional<Resumption> resumption = {});

  /*
   * Runs until SIGTERM, SIGINT or SIGHUP arrives; then applies all messages that the module has
   * sent, syncs the replica and returns. SIGUSR1 requests a catch-up: the status file tells when
   * all changes made before it have been applied. Returns kProblems at once if the status file
   * cannot be written.
   */
  End run(SignalPipe &signals);

  const MirrorStatus &status() const { return status_; }

 private:
  void record(const Record &record, Bytes, Sequencer::Order order) override;
  void event(const Uuid &uuid, const Sequencer::Event &event) override;

  void packets(const DaemonChannel::Received &received);
  void packet(Bytes packet, std::chrono::steady_clock::time_point now);
  void losses(const DaemonChannel::Received &received);
  void signal(int number);
  void ask_catch_up();
  void note_caught_up(std::uint64_t barriers);
  void resume();
  void note_registered();
  void save_state();
  void drain();
  Result<void> write_status_file();
  void update_status_file();
  void unconfirmed(const std::string &why);
  void report_write_back_errors();
  void compare_all(std::int64_t until);
  void compare_changed(std::chrono::microseconds ago);
  void report_comparison(const Result<void> &compared);
  void report_unexplained(std::optional<std::chrono::nanoseconds> older_than = {});
  void reconcile();
  DaemonChannel::Milliseconds receive_timeout() const;
  bool wanted(const Uuid &rule) const {
    return options_.rules.empty() || options_.rules.contains(rule);
  }

  MirrorOptions options_;
  Replica &replica_;
  DaemonChannel &channel_;
  Applier applier_;
  Sequencer sequencer_;
  MirrorStatus status_;
  bool changed_ = true;                     /* since the status file was written */
  bool status_file_error_reported_ = false; /* that it cannot be written */
  std::chrono::steady_clock::time_point written_{};

  std::map<Uuid, std::uint64_t> last_ts_; /* of the latest record of each rule */

  std::optional<Resumption> resumption_;
  StateFile::Positions positions_;    /* in the state file */
  bool state_error_reported_ = false; /* that it cannot be written */
  /* Until note_registered(): rules that may have changed while no mirrord ran, and why the module
   * was not made to number a record for them. */
  std::map<Uuid, std::string> uncertain_;
  bool registered_ = false;

  struct CatchUp {
    std::uint64_t barrier;
    std::int64_t requested_ns; /* monotonic */
    std::int64_t requested_us; /* since the epoch, the clock of file times */
  };
  std::deque<CatchUp> catch_ups_;                                /* without an answer yet */
  std::optional<std::chrono::steady_clock::time_point> stop_by_; /* told to end */
};

}  // namespace tarn

#endif
