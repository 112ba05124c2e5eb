// SPDX-License-Identifier: GPL-2.0
// watch: shows the change records as they arrive. It is the daemon while it runs.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <iostream>
#include <optional>

#include <fmt/format.h>

#include "base/text.h"
#include "client/daemon.h"
#include "client/pages.h"
#include "client/sequence.h"
#include "client/signal_pipe.h"
#include "client/site.h"
#include "tarn/commands.h"
#include "tarn/report.h"

namespace tarn {
namespace {

constexpr DaemonChannel::Milliseconds kPollInterval{1000};

void say(const std::string &text) {
  std::cerr << "tarn: " << text << '\n';
}

class Watcher : public Sequencer::Sink {
 public:
  explicit Watcher(Format format) : format_(format), sequencer_(*this) {}

  void packet(Bytes packet) {
    const auto message = decode(packet);
    if (!message) return say(message.error().text);
    if (const auto *record = std::get_if<Record>(&*message))
      sequencer_.add(*record, packet, Sequencer::Clock::now());
    else if (const auto *stop = std::get_if<StopRule>(&*message))
      stopped(stop->rule);
  }

  void expire() { sequencer_.expire(Sequencer::Clock::now()); }
  void finish() { sequencer_.finish(); }

  /* How long to wait for packets: until expire() is due, or another daemon may have taken over. */
  DaemonChannel::Milliseconds receive_timeout() const {
    using Milliseconds = DaemonChannel::Milliseconds;
    auto wait = kPollInterval;
    if (const auto deadline = sequencer_.next_deadline())
      wait = std::min(wait, std::chrono::ceil<Milliseconds>(*deadline - Sequencer::Clock::now()));
    return std::max(wait, Milliseconds(0));
  }

  void record(const Record &record, Bytes, Sequencer::Order) override {
    if (!std::holds_alternative<WritePage>(record.change)) return show(record);
    const auto place = pages_.follow(record);
    if (!place)
      return say(
          fmt::format("rule {} #{}: {}", to_string(record.rule), record.wseq, place.error().text));
    if (place->last) show_paged(record, *place);
  }

  void event(const Uuid &rule, const Sequencer::Event &event) override {
    if (format_ == Format::kJson)
      std::cout << event_json(rule, event) << '\n';
    else
      say(fmt::format("rule {}: {}", to_string(rule), event_line(event)));
  }

 private:
  void show(const Record &record) {
    if (format_ == Format::kJson)
      std::cout << record_json(record) << '\n';
    else
      std::cout << record_line(record) << '\n';
  }

  /* Shows a paged write as one record. */
  void show_paged(const Record &record, const PageFollower::Place &place) {
    const auto &page = std::get<WritePage>(record.change);
    Record whole = record;
    whole.change = Write{place.path, place.start, {}};
    if (format_ == Format::kJson) {
      auto json = record_json(whole);
      json["bytes"] = place.bytes;
      json["pages"] = page.pages;
      std::cout << json << '\n';
    } else {
      std::cout << fmt::format("{} #{} {} write {} offset {} bytes {} pages {}\n",
                               to_string(record.rule), record.wseq,
                               utc_time(static_cast<std::int64_t>(record.ts)),
                               printable(place.path), place.start, place.bytes, page.pages);
    }
  }

  void stopped(const Uuid &rule) {
    if (format_ == Format::kJson)
      std::cout << nlohmann::ordered_json{{"rule", to_string(rule)}, {"event", "stopped"}} << '\n';
    else
      say(
          fmt::format("rule {}: stopped by the module, which could not make a record for it: `tarn "
                      "log` tells why",
                      to_string(rule)));
  }

  Format format_;
  Sequencer sequencer_;
  PageFollower pages_;
};

void lost(Format format, std::uint64_t times) {
  if (format == Format::kJson)
    std::cout << nlohmann::ordered_json{{"event", "lost"}, {"messages", times}} << '\n';
  else
    say(fmt::format("the module could not deliver {} messages", times));
}

/* Shows packets until a signal arrives. Error: the channel was closed or another daemon took
 * over. */
Result<void> show_all(Watcher &watcher, DaemonChannel &channel, SignalPipe &signals,
                      Format format) {
  using Clock = std::chrono::steady_clock;
  std::optional<Clock::time_point> end_by;
  for (;;) {
    const auto receive_timeout =
        end_by ? DaemonChannel::Milliseconds(0) : watcher.receive_timeout();
    const auto received = channel.receive(receive_timeout, signals.fd());
    if (!received) return received.error();
    for (const Bytes packet : received->packets) watcher.packet(packet);
    watcher.expire();
    if (received->lost != 0) lost(format, received->lost);
    if (received->oversized != 0)
      say(fmt::format("{} packets were too long to be messages", received->oversized));
    std::cout.flush();
    if (received->closed)
      return Error{-EPIPE, "tarnd has ended, so there is nothing more to watch"};
    if (!std::cout) return {};
    // Show what arrived before the signal, for at most kPollInterval.
    if (received->woken && !end_by && signals.take() != 0) end_by = Clock::now() + kPollInterval;
    if (end_by && (received->packets.empty() || Clock::now() > *end_by)) return {};
    if (received->packets.empty() && channel.taken_over())
      return Error{-EBUSY, "another daemon has taken over: no more records come here"};
  }
}

}  // namespace

int watch_command(const WatchOptions &options) {
  auto signals = SignalPipe::open({SIGINT, SIGTERM});
  if (!signals) return fail(signals.error());
  auto channel = DaemonChannel::open(find_site(),
                                     options.take_over ? Claim::kTakeOver : Claim::kRefuseIfTaken);
  if (!channel) {
    Error error = channel.error();
    if (error.code == -EBUSY) error.text += " with --take-over";
    return fail(error);
  }
  Watcher watcher(options.format);
  const auto ended = show_all(watcher, **channel, **signals, options.format);
  watcher.finish();
  if (!ended) return fail(ended.error());
  const auto left = (*channel)->leave();
  return left ? kExitOk : fail(left.error());
}

}  // namespace tarn
