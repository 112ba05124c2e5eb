/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The daemon's work: receives the module's messages, puts the records of each rule in order,
 * replays them, and keeps account. What goes wrong is said on stderr as it happens and counted;
 * nothing that goes wrong with one record keeps the next from being tried. One thread.
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
  std::string report_file = {}; /* the same for `tarn status`; empty: none */
  RuleLists rule_lists = {};    /* what the rules replicate */
  /* How long an end waits for what the module has sent before it. */
  std::chrono::milliseconds stop_patience = std::chrono::seconds(30);
};

/* What a mirrord needs to find out what was changed while none ran. */
struct Resumption {
  StateFile state;
  /* Makes the module number a record for each rule: the rules for which that was done, and why not
   * for the others. */
  struct Asked {
    std::set<Uuid> rules;
    std::map<Uuid, std::string> not_asked;
  };
  std::function<Result<Asked>()> ask_numbers;
  std::function<void()> registered; /* called once nothing that is missing is undeclared */
};

class Mirror : private Sequencer::Sink {
 public:
  enum class End {
    kClean,    /* asked to end; everything was applied */
    kProblems, /* asked to end; something went wrong meanwhile */
    kChannel,  /* the module's side has gone, or another daemon took over */
  };

  /* Without a resumption there is no state file: changes of the time before cannot be detected. */
  Mirror(MirrorOptions options, Replica &replica, DaemonChannel &channel,
         std::optional<Resumption> resumption = {});

  /*
   * Until SIGTERM, SIGINT or SIGHUP comes out of `signals`: then what the module has sent is still
   * applied, and is on the disk when this returns. SIGUSR1 asks to be told, in the status file,
   * when everything changed until then has been applied. Ends at once with kProblems if the status
   * file cannot be written.
   */
  End run(SignalPipe &signals);

  const MirrorStatus &status() const { return status_; }

 private:
  void record(const Record &record, Sequencer::Order order) override;
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
  void compare_all(std::int64_t asked);
  void compare_changed(std::chrono::microseconds ago);
  void report_comparison(const Result<void> &compared);
  void report_unexplained(std::optional<std::chrono::nanoseconds> older_than = {});
  void reconcile();
  DaemonChannel::Milliseconds patience() const;
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
  /* Until note_registered(): the rules that may have changed while no mirrord ran, and why one of
   * them could not be asked. */
  std::map<Uuid, std::string> uncertain_;
  bool registered_ = false;

  struct CatchUp {
    std::uint64_t barrier;
    std::int64_t asked_ns; /* monotonic */
    std::int64_t asked_us; /* since the epoch, as files are stamped */
  };
  std::deque<CatchUp> catch_ups_;                                /* asked for, not come back */
  std::optional<std::chrono::steady_clock::time_point> stop_by_; /* asked to end */
};

}  // namespace tarn

#endif
