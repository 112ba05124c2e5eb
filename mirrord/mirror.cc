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
constexpr Milliseconds kQuiet{100}; /* nothing for so long: nothing more will come */

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

void Mirror::record(const Record &record, Sequencer::Order order) {
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
    say(what() + ": came late, after its place was given up; applied now");
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
    applier_.lost(last->second);
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
    say(fmt::format("{}: record {} came once more; not applied again", name, duplicate->wseq));
  } else if (const auto *restarted = std::get_if<Sequencer::Restarted>(&event)) {
    ++rule.gaps;
    say(fmt::format(
        "{}: GAP: was made anew after record {}: what was changed in between is missing", name,
        restarted->last));
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
    // The module says it once more with each change that it does not capture.
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
  // Any program can send them, as many as it likes: they are counted, and said once.
  if (received.foreign != 0 && status_.foreign == 0)
    say("a program other than the module sends messages here; they are not taken");
  status_.foreign += received.foreign;
  if (received.oversized != 0)
    say(fmt::format("{} packets were too long to be messages", received.oversized));
  if (received.lost == 0) return;
  say(fmt::format(
      "LOST: the module could not deliver {} messages: the replica may differ from now on",
      received.lost));
  // The answer to a barrier may have been among them. One more answer makes up for it.
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
  const auto barrier = channel_.ask_barrier();
  if (!barrier) return unconfirmed(barrier.error().text);
  catch_ups_.push_back({*barrier, now, now_us()});
}

void Mirror::unconfirmed(const std::string &why) {
  ++status_.unconfirmed;
  changed_ = true;
  say("the module was asked whether everything has come: " + why);
}

/* They concern earlier writes, not the current record. */
void Mirror::report_write_back_errors() {
  for (const auto &[path, error] : replica_.take_write_back_errors()) {
    ++status_.write_back_errors;
    changed_ = true;
    say(fmt::format("{}: not all that was written to it was kept: {}",
                    printable(options_.replica + "/" + path), error.text));
  }
}

/* Everything that was done until `asked` has been applied. */
void Mirror::compare_all(std::int64_t asked) {
  report_comparison(applier_.caught_up(asked));
}

/* Between catch-up requests: compares what was captured until that long ago. */
void Mirror::compare_changed(std::chrono::microseconds ago) {
  if (!applier_.changed_paths().empty())
    report_comparison(applier_.compare_changed(now_us() - ago.count()));
}

void Mirror::report_comparison(const Result<void> &compared) {
  report_write_back_errors();
  if (compared) return;
  ++status_.unconfirmed;
  changed_ = true;
  say("what was changed could not be compared with the source: " + compared.error().text);
}

/* Records whose object was missing, and which no later record explained. */
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
  compare_all(reached.asked_us);
  replica_.close_files();
  report_write_back_errors();
  // Records of what left the source a second before the request have arrived by now.
  report_unexplained(std::chrono::nanoseconds(monotonic_ns() - reached.asked_ns) +
                     std::chrono::seconds(1));
  save_state();
  note_registered();
  status_.caught_up_to_ns = reached.asked_ns;
  update_status_file();
}

void Mirror::signal(int number) {
  if (number == SIGUSR1) return ask_catch_up();
  if (number != SIGTERM && number != SIGINT && number != SIGHUP) return;
  if (!stop_by_) stop_by_ = Clock::now() + options_.stop_patience;
  ask_catch_up();
}

Milliseconds Mirror::patience() const {
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
 * Goes on from where the last mirrord of this replica ended. Every rule is made to number a record
 * now, so that what was changed in between is known when that record is here, not when somebody
 * changes something again.
 */
void Mirror::resume() {
  if (!resumption_) return;
  const auto saved = resumption_->state.read();
  if (saved) {
    positions_ = *saved;
  } else {
    ++status_.unconfirmed;
    say(saved.error().text + ": nobody knows whether changes since the last run are missing");
  }
  const auto asked = resumption_->ask_numbers();
  for (const auto &[uuid, position] : positions_) {
    if (!wanted(uuid)) continue;
    sequencer_.resume(uuid, position);
    if (!asked)
      uncertain_[uuid] = asked.error().text;
    else if (asked->rules.contains(uuid))
      uncertain_[uuid] = "the module made no record";
    else if (const auto why = asked->not_asked.find(uuid); why != asked->not_asked.end())
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
        "{}: nobody knows whether changes since the last run are missing ({}): its next "
        "record will tell",
        rule_name(uuid), why));
  }
  uncertain_.clear();
  resumption_->registered();
}

/* After everything that it claims has been applied. */
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

/* After quit: applies what is still on its way. */
void Mirror::drain() {
  const auto end = Clock::now() + options_.stop_patience;
  while (Clock::now() < end) {
    const auto received = channel_.receive(kQuiet);
    if (!received) return say(received.error().text);
    packets(*received);
    if (received->packets.empty() || received->closed) return;
  }
}

/* At the end: later errors could not be reported. */
void Mirror::reconcile() {
  compare_all(now_us());
  report_unexplained(std::chrono::nanoseconds(0));
  replica_.close_files();
  report_write_back_errors();
  if (const auto synced = replica_.sync(); !synced) {
    ++status_.write_back_errors;
    say(fmt::format("the file system of {} did not keep all that was written to it: {}",
                    printable(options_.replica), synced.error().text));
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
    const auto received = channel_.receive(patience(), signals.fd());
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
      unconfirmed(fmt::format("no answer within {} ms", options_.stop_patience.count()));
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
