// SPDX-License-Identifier: GPL-2.0
#include "mirrord/mirror.h"

#include <unistd.h>

#include <csignal>
#include <iostream>

#include <fmt/format.h>

#include "base/text.h"
#include "mirrord/file_status.h"

namespace tarn {
namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = DaemonChannel::Milliseconds;

constexpr Milliseconds kStatusInterval{1000};
constexpr Milliseconds kDrainTimeout{100}; /* with no packet for this long, all have come */

void say(const std::string &text) {
  std::cerr << "mirrord: " + text + "\n";
}

std::string rule_name(const Uuid &rule) {
  return "rule " + to_string(rule);
}

}  // namespace

Mirror::Mirror(MirrorOptions options, Replica &replica, DaemonChannel &channel,
               std::optional<Resumption> resumption)
    : options_(std::move(options)),
      replica_(replica),
      channel_(channel),
      applier_(options_.source, replica, options_.rule_lists),
      sequencer_(*this),
      resumption_(std::move(resumption)) {
  status_.pid = getpid();
  status_.source = options_.source;
  status_.replica = options_.replica;
}

void Mirror::record(const Record &record, Bytes /*packet*/, Sequencer::Order order) {
  RuleStatus &rule = status_.rules[record.rule];
  changed_ = true;
  rule.unchecked = false;
  rule.last_wseq = record.wseq;
  ++rule.messages;
  const auto outcome = applier_.apply(record);
  last_ts_[record.rule] = record.ts;
  report_write_back_errors();
  report_unexplained();
  const auto what = [&] {
    std::string text =
        fmt::format("{} {}", change_name(record.change), printable(change_path(record.change)));
    if (!applier_.page_path().empty())
      text = fmt::format("write {} page {}", printable(applier_.page_path()),
                         std::get<WritePage>(record.change).page);
    return fmt::format("{} record {} ({})", rule_name(record.rule), record.wseq, text);
  };
  if (order == Sequencer::Order::kLate)
    say(what() + ": arrived late, after it was declared missing; applied now");
  if (!outcome) {
    ++rule.failures;
    say(what() + ": " + outcome.error().text);
    return;
  }
  if (*outcome == Applier::Outcome::kNameless) ++rule.nameless;
  if (const auto *write = std::get_if<Write>(&record.change)) rule.bytes += write->data.size();
  if (const auto *page = std::get_if<WritePage>(&record.change)) rule.bytes += page->data.size();
  if (applier_.changed_paths().full()) compare_changed(std::chrono::microseconds(0));
}

void Mirror::event(const Uuid &uuid, const Sequencer::Event &event) {
  RuleStatus &rule = status_.rules[uuid];
  changed_ = true;
  const std::string name = rule_name(uuid);
  if (const auto last = last_ts_.find(uuid);
      last != last_ts_.end() && !std::holds_alternative<Sequencer::Duplicate>(event))
    applier_.note_lost(last->second);
  if (const auto *joined = std::get_if<Sequencer::Joined>(&event)) {
    ++rule.gaps;
    say(
        fmt::format("{}: GAP: begins with record {}; those before it were not sent here, so their "
                    "changes are missing",
                    name, joined->first));
  } else if (const auto *missing = std::get_if<Sequencer::Missing>(&event)) {
    ++rule.gaps;
    say(fmt::format("{}: GAP: records {} to {} are missing: the replica may differ from now on",
                    name, missing->first, missing->last));
  } else if (const auto *pages = std::get_if<Sequencer::MissingPages>(&event)) {
    ++rule.gaps;
    say(fmt::format(
        "{}: GAP: record {} ends after {} of its pages: the replica may differ from now on", name,
        pages->wseq, pages->arrived));
  } else if (const auto *duplicate = std::get_if<Sequencer::Duplicate>(&event)) {
    ++rule.duplicates;
    say(fmt::format("{}: record {} arrived again; not applied", name, duplicate->wseq));
  } else if (const auto *restarted = std::get_if<Sequencer::Restarted>(&event)) {
    ++rule.gaps;
    say(fmt::format(
        "{}: GAP: was deleted and added again after record {}: changes in between are missing",
        name, restarted->last));
  }
}

void Mirror::packet(Bytes packet, Clock::time_point now) {
  const auto message = decode(packet);
  if (!message) {
    ++status_.malformed;
    changed_ = true;
    return say(message.error().text);
  }
  if (const auto *record = std::get_if<Record>(&*message)) {
    if (wanted(record->rule)) sequencer_.add(*record, packet, now);
  } else if (const auto *stop = std::get_if<StopRule>(&*message); stop && wanted(stop->rule)) {
    RuleStatus &rule = status_.rules[stop->rule];
    // The module repeats it with each change that it does not capture.
    if (!rule.stopped)
      say(fmt::format(
          "{}: STOPPED by the module, which could not make a record for it (no memory, or written "
          "data that could not be read: 'tarn log' tells): its changes are no longer replicated; "
          "delete the rule, add it again and copy the source anew",
          rule_name(stop->rule)));
    rule.stopped = changed_ = true;
  }
}

void Mirror::losses(const DaemonChannel::Received &received) {
  if (received.lost == 0 && received.oversized == 0 && received.foreign == 0) return;
  changed_ = true;
  status_.lost += received.lost;
  status_.malformed += received.oversized;
  // Any program can send any number of them: reported once, then only counted.
  if (received.foreign != 0 && status_.foreign == 0)
    say("a program other than the module sends messages here; they are ignored");
  status_.foreign += received.foreign;
  if (received.oversized != 0)
    say(fmt::format("{} packets were too long to be messages", received.oversized));
  if (received.lost == 0) return;
  say(fmt::format(
      "LOST: the module could not deliver {} messages: the replica may differ from now on",
      received.lost));
  // The answer to a barrier may be lost too: a new barrier replaces it.
  if (!catch_ups_.empty()) ask_catch_up();
}

void Mirror::packets(const DaemonChannel::Received &received) {
  for (const Bytes p : received.packets) packet(p, received.arrived_until);
  sequencer_.expire(received.arrived_until);
  losses(received);
  note_caught_up(received.barriers);
}

void Mirror::ask_catch_up() {
  const std::int64_t now = monotonic_ns();
  const auto barrier = channel_.send_barrier();
  if (!barrier) return unconfirmed(barrier.error().text);
  catch_ups_.push_back({*barrier, now, now_us()});
}

void Mirror::unconfirmed(const std::string &why) {
  ++status_.unconfirmed;
  changed_ = true;
  say("it is unknown whether the module has sent all records: " + why);
}

/* They concern earlier writes, not the current record. */
void Mirror::report_write_back_errors() {
  for (const auto &[path, error] : replica_.take_write_back_errors()) {
    ++status_.write_back_errors;
    changed_ = true;
    say(fmt::format("{}: write-back error, written data may be lost: {}",
                    printable(options_.replica + "/" + path), error.text));
  }
}

/* All changes made before `until` have been applied. */
void Mirror::compare_all(std::int64_t until) {
  report_comparison(applier_.caught_up(until));
}

/* Between catch-up requests: compares the paths of changes captured until `ago` before now. */
void Mirror::compare_changed(std::chrono::microseconds ago) {
  if (!applier_.changed_paths().empty())
    report_comparison(applier_.compare_changed(now_us() - ago.count()));
}

void Mirror::report_comparison(const Result<void> &compared) {
  report_write_back_errors();
  if (compared) return;
  ++status_.unconfirmed;
  changed_ = true;
  say("changed paths could not be compared with the source: " + compared.error().text);
}

void Mirror::report_unexplained(std::optional<std::chrono::nanoseconds> older_than) {
  std::optional<std::chrono::microseconds> age;
  if (older_than) age = std::chrono::ceil<std::chrono::microseconds>(*older_than);
  for (const auto &[uuid, wseq, what] : applier_.take_unexplained(age)) {
    ++status_.rules[uuid].failures;
    changed_ = true;
    say(
        fmt::format("{} record {} ({}): the replica does not have it, and no later record tells "
                    "why",
                    rule_name(uuid), wseq, what));
  }
}

void Mirror::note_caught_up(std::uint64_t barriers) {
  const auto come = [&] { return !catch_ups_.empty() && catch_ups_.front().barrier <= barriers; };
  if (!sequencer_.holds_nothing() || !come()) return;
  CatchUp reached{};
  for (; come(); catch_ups_.pop_front()) reached = catch_ups_.front();
  compare_all(reached.requested_us);
  replica_.close_files();
  report_write_back_errors();
  // Records of removals a second before the request have arrived by now.
  report_unexplained(std::chrono::nanoseconds(monotonic_ns() - reached.requested_ns) +
                     std::chrono::seconds(1));
  save_state();
  note_registered();
  status_.caught_up_to_ns = reached.requested_ns;
  update_status_file();
}

void Mirror::signal(int number) {
  if (number == SIGUSR1) return ask_catch_up();
  if (number != SIGTERM && number != SIGINT && number != SIGHUP) return;
  if (!stop_by_) stop_by_ = Clock::now() + options_.stop_timeout;
  ask_catch_up();
}

Milliseconds Mirror::receive_timeout() const {
  auto wait = kStatusInterval;
  if (const auto deadline = sequencer_.next_deadline())
    wait = std::min(wait, std::chrono::ceil<Milliseconds>(*deadline - Clock::now()));
  return std::max(wait, Milliseconds(0));
}

Result<void> Mirror::write_status_file() {
  changed_ = false;
  written_ = Clock::now();
  for (const std::string &file : {options_.status_file, options_.report_file}) {
    if (file.empty()) continue;
    if (auto written = write_status(file, status_); !written) return written;
  }
  return {};
}

/*
 * Resumes where the last mirrord of this replica ended. Makes the module number a record for each
 * rule, so that changes made in between are detected now and not at the next change.
 */
void Mirror::resume() {
  if (!resumption_) return;
  const auto saved = resumption_->state.read();
  if (saved) {
    positions_ = *saved;
  } else {
    ++status_.unconfirmed;
    say(saved.error().text + ": it is unknown whether changes since the last run are missing");
  }
  const auto touched = resumption_->touch_rules();
  for (const auto &[uuid, position] : positions_) {
    if (!wanted(uuid)) continue;
    sequencer_.resume(uuid, position);
    if (!touched)
      uncertain_[uuid] = touched.error().text;
    else if (touched->rules.contains(uuid))
      uncertain_[uuid] = "the module made no record";
    else if (const auto why = touched->failed.find(uuid); why != touched->failed.end())
      uncertain_[uuid] = why->second;
  }
  ask_catch_up();
}

void Mirror::note_registered() {
  if (!resumption_ || std::exchange(registered_, true)) return;
  for (const auto &[uuid, why] : uncertain_) {
    RuleStatus &rule = status_.rules[uuid];
    if (rule.messages != 0 || rule.stopped) continue;
    rule.unchecked = changed_ = true;
    say(fmt::format(
        "{}: it is unknown whether changes since the last run are missing ({}): its next "
        "record will tell",
        rule_name(uuid), why));
  }
  uncertain_.clear();
  resumption_->registered();
}

/* Call it after all records up to these positions have been applied. */
void Mirror::save_state() {
  if (!resumption_ || channel_.taken_over()) return;
  auto positions = positions_;
  for (const auto &[uuid, position] : sequencer_.positions()) positions[uuid] = position;
  if (positions == positions_) return;
  const auto written = resumption_->state.write(positions);
  if (!written && !state_error_reported_) say(written.error().text);
  state_error_reported_ = !written.ok();
  if (written) positions_ = std::move(positions);
}

/* An error is reported once, until a write succeeds again. */
void Mirror::update_status_file() {
  const auto written = write_status_file();
  if (!written && !status_file_error_reported_) say(written.error().text);
  status_file_error_reported_ = !written.ok();
}

/* After quit: applies the messages that are still queued. */
void Mirror::drain() {
  const auto end = Clock::now() + options_.stop_timeout;
  while (Clock::now() < end) {
    const auto received = channel_.receive(kDrainTimeout);
    if (!received) return say(received.error().text);
    packets(*received);
    if (received->packets.empty() || received->closed) return;
  }
}

/* The last comparison and sync; later errors could not be reported. */
void Mirror::reconcile() {
  compare_all(now_us());
  report_unexplained(std::chrono::nanoseconds(0));
  replica_.close_files();
  report_write_back_errors();
  if (const auto synced = replica_.sync(); !synced) {
    ++status_.write_back_errors;
    say(fmt::format("write-back error on the file system of {}: {}", printable(options_.replica),
                    synced.error().text));
  }
}

Mirror::End Mirror::run(SignalPipe &signals) {
  if (auto written = write_status_file(); !written) {
    say(written.error().text);
    return End::kProblems;
  }
  resume();
  std::optional<End> end;
  while (!end) {
    const auto received = channel_.receive(receive_timeout(), signals.fd());
    if (!received) {
      say(received.error().text);
      end = End::kChannel;
      break;
    }
    packets(*received);
    if (received->woken) signal(signals.take());
    if (received->closed) {
      say("the module's side of the channel was closed: tarnd has ended");
      end = End::kChannel;
    } else if (stop_by_ && catch_ups_.empty()) {
      end = End::kClean;
    } else if (stop_by_ && Clock::now() > *stop_by_) {
      unconfirmed(fmt::format("no answer within {} ms", options_.stop_timeout.count()));
      end = End::kClean;
    } else if (received->packets.empty() && !received->woken && channel_.taken_over()) {
      say("another daemon has taken over: no more records come here");
      end = End::kChannel;
    }
    if (received->packets.empty() && !received->woken && sequencer_.holds_nothing())
      compare_changed(kStatusInterval);
    if (changed_ && Clock::now() - written_ >= kStatusInterval) {
      save_state();
      update_status_file();
    }
  }
  if (auto left = channel_.leave(); !left && *end == End::kClean) say(left.error().text);
  drain();
  sequencer_.finish();
  reconcile();
  save_state();
  status_.running = false;
  update_status_file();
  if (*end == End::kClean && status_.problems() != 0) end = End::kProblems;
  return *end;
}

}  // namespace tarn
