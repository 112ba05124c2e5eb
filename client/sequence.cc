// SPDX-License-Identifier: GPL-2.0
#include "client/sequence.h"

#include <algorithm>

namespace tarn {
namespace {

// Where a rule's 64-bit numbers begin, so that numbers below the first one seen exist as well.
constexpr std::uint64_t kEpoch = std::uint64_t{1} << 32;

std::uint32_t narrow(std::uint64_t number) {
  return static_cast<std::uint32_t>(number);
}

}  // namespace

Sequencer::Number Sequencer::widen(const Rule &rule, std::uint32_t wseq) {
  if (rule.next == 0) return kEpoch + wseq;
  // The number nearest to the expected one that ends in these 32 bits.
  const auto distance = static_cast<std::int32_t>(wseq - narrow(rule.next));
  return rule.next + static_cast<std::int64_t>(distance);
}

void Sequencer::add(const Record &record, Bytes packet, Clock::time_point now) {
  Rule &rule = rules_[record.rule];
  if (!rule.started && record.wseq == 1 && rule.held.empty()) {
    rule.started = true;
    rule.next = kEpoch + 1;
  }
  const Number number = widen(rule, record.wseq);
  if (!rule.started) {
    if (rule.next == 0) rule.next = number;  // widens the next ones; the start is found in expire()
    hold(rule, number, packet, now);
    const bool complete = rule.held.begin()->first == widen(rule, 1);
    if (complete || rule.held_records > limits_.records || held_bytes_ > limits_.bytes)
      skip_gap(record.rule, rule, now);
    return;
  }
  if (number < rule.next) {
    old_number(record.rule, rule, number, record, packet, now);
    return;
  }
  if (number == rule.next) {
    pass_in_order(rule, record);
    drain(record.rule, rule, now);
    return;
  }
  hold(rule, number, packet, now);
  while (!rule.held.empty() && (rule.held_records > limits_.records || held_bytes_ > limits_.bytes))
    skip_gap(record.rule, rule, now);
}

void Sequencer::pass(Rule &rule, const Record &record, Order order) {
  rule.newest_ts = std::max(rule.newest_ts, record.ts);
  sink_.record(record, order);
}

void Sequencer::pass_in_order(Rule &rule, const Record &record) {
  pass(rule, record, Order::kInOrder);
  if (record.last()) {
    ++rule.next;
    rule.next_page = 0;
  } else {
    ++rule.next_page;
  }
}

void Sequencer::hold(Rule &rule, Number number, Bytes packet, Clock::time_point now) {
  if (rule.held.empty()) rule.deadline = now + (rule.started ? limits_.hold : limits_.settle);
  Held held;
  held.packet.assign(packet.begin(), packet.end());
  auto decoded = decode(held.packet);
  held.record = std::get<Record>(std::move(*decoded));
  held_bytes_ += held.packet.size();
  ++rule.held_records;
  rule.held[number].push_back(std::move(held));
}

void Sequencer::old_number(const Uuid &uuid, Rule &rule, Number number, const Record &record,
                           Bytes packet, Clock::time_point now) {
  if (take_missing(rule, number, record.last())) {
    pass(rule, record, Order::kLate);
  } else if (record.ts > rule.newest_ts) {
    restart(uuid, rule);
    add(record, packet, now);
  } else {
    sink_.event(uuid, Duplicate{record.wseq});
  }
}

/* Passes on what waits and has its turn now. */
void Sequencer::drain(const Uuid &uuid, Rule &rule, Clock::time_point now) {
  for (auto first = rule.held.begin(); first != rule.held.end() && first->first <= rule.next;
       first = rule.held.begin()) {
    const auto node = rule.held.extract(first);
    for (const Held &held : node.mapped()) {
      held_bytes_ -= held.packet.size();
      --rule.held_records;
      if (node.key() == rule.next) {
        pass_in_order(rule, held.record);
      } else {
        sink_.event(uuid, Duplicate{held.record.wseq});
      }
    }
  }
  // Each step forward is a sign of life: what still waits gets the whole time again.
  if (!rule.held.empty()) rule.deadline = now + limits_.hold;
}

/* Gives up waiting for `next`: goes on with the first record that is there. */
void Sequencer::skip_gap(const Uuid &uuid, Rule &rule, Clock::time_point now) {
  const Number first = rule.held.begin()->first;
  if (!rule.started) {
    rule.started = true;
    if (narrow(first) != 1) sink_.event(uuid, Joined{narrow(first)});
  } else {
    if (rule.next_page != 0) sink_.event(uuid, MissingPages{narrow(rule.next), rule.next_page});
    const Number gap = rule.next + (rule.next_page != 0);
    if (gap < first) sink_.event(uuid, Missing{narrow(gap), narrow(first - 1)});
    rule.missing[rule.next] = first - 1;
    if (rule.missing.size() > kMissingRanges) rule.missing.erase(rule.missing.begin());
  }
  rule.next = first;
  rule.next_page = 0;
  drain(uuid, rule, now);
}

/* Was the number declared missing? Forgets it then, if this is its last message. */
bool Sequencer::take_missing(Rule &rule, Number number, bool last) {
  auto range = rule.missing.upper_bound(number);
  if (range == rule.missing.begin() || (--range)->second < number) return false;
  if (!last) return true;
  const auto [begin, end] = *range;
  rule.missing.erase(range);
  if (begin < number) rule.missing[begin] = number - 1;
  if (number < end) rule.missing[number + 1] = end;
  return true;
}

/* The rest of a write of which some pages have passed will not come in time. */
void Sequencer::give_up_pages(const Uuid &uuid, Rule &rule) {
  if (rule.next_page == 0) return;
  sink_.event(uuid, MissingPages{narrow(rule.next), rule.next_page});
  rule.missing[rule.next] = rule.next;
  ++rule.next;
  rule.next_page = 0;
}

void Sequencer::restart(const Uuid &uuid, Rule &rule) {
  while (!rule.held.empty()) skip_gap(uuid, rule, {});
  give_up_pages(uuid, rule);
  sink_.event(uuid, Restarted{narrow(rule.next - 1)});
  const std::uint64_t newest = rule.newest_ts;
  rule = Rule{};
  rule.newest_ts = newest;
}

void Sequencer::expire(Clock::time_point now) {
  for (auto &[uuid, rule] : rules_) {
    if (!rule.held.empty() && rule.deadline <= now) skip_gap(uuid, rule, now);
  }
}

std::optional<Sequencer::Clock::time_point> Sequencer::next_deadline() const {
  std::optional<Clock::time_point> earliest;
  for (const auto &[uuid, rule] : rules_) {
    if (!rule.held.empty() && (!earliest || rule.deadline < *earliest)) earliest = rule.deadline;
  }
  return earliest;
}

void Sequencer::finish() {
  for (auto &[uuid, rule] : rules_) {
    while (!rule.held.empty()) skip_gap(uuid, rule, {});
    give_up_pages(uuid, rule);
  }
}

}  // namespace tarn
