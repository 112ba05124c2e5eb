// SPDX-License-Identifier: GPL-2.0
#include "client/sequence.h"

#include <algorithm>
#include <utility>

namespace tarn {
namespace {

// Where a rule's 64-bit numbers begin, so that there are numbers below the first one seen.
constexpr std::uint64_t kEpoch = std::uint64_t{1} << 32;

std::uint32_t narrow(std::uint64_t number) {
  return static_cast<std::uint32_t>(number);
}

}  // namespace

Sequencer::Number Sequencer::widen(Number next, std::uint32_t wseq) {
  if (next == 0) return kEpoch + wseq;
  // The number nearest to the expected one that ends in these 32 bits.
  const auto distance = static_cast<std::int32_t>(wseq - narrow(next));
  return next + static_cast<std::int64_t>(distance);
}

void Sequencer::resume(const Uuid &uuid, Position position) {
  Rule &rule = rules_[uuid];
  rule.known = rule.started = rule.resumed = true;
  rule.generation = position.generation;
  rule.next = kEpoch + position.last + 1;
}

std::map<Uuid, Sequencer::Position> Sequencer::positions() const {
  std::map<Uuid, Position> positions;
  for (const auto &[uuid, rule] : rules_) {
    if (rule.started) positions[uuid] = {rule.generation, narrow(rule.next - 1)};
  }
  return positions;
}

void Sequencer::add(const Record &record, Bytes packet, Clock::time_point now) {
  Rule &rule = rules_[record.rule];
  if (!std::exchange(rule.known, true)) {
    rule.generation = record.generation;
  } else if (record.generation != rule.generation) {
    if (of_former_generation(record.rule, rule, record, packet)) return;
    restart(record.rule, rule, record.generation);
  }
  if (!rule.started && record.wseq == 1 && rule.held.empty()) {
    rule.started = true;
    rule.next = kEpoch + 1;
  }
  const Number number = widen(rule.next, record.wseq);
  if (!rule.started) {
    if (rule.next == 0) rule.next = number;  // a reference for widen(); expire() finds the start
    hold(rule, number, packet, now);
    const bool complete = rule.held.begin()->first == widen(rule.next, 1);
    if (complete || rule.held_records > limits_.records || held_bytes_ > limits_.bytes)
      skip_gap(record.rule, rule, now);
    return;
  }
  if (number < rule.next) {
    add_old(record.rule, rule, number, record, packet, now);
    return;
  }
  if (number == rule.next) {
    pass_in_order(rule, record, packet, now);
    drain(record.rule, rule, now);
    return;
  }
  hold(rule, number, packet, now);
  while (!rule.held.empty() && (rule.held_records > limits_.records || held_bytes_ > limits_.bytes))
    skip_gap(record.rule, rule, now);
}

void Sequencer::pass(Rule &rule, const Record &record, Bytes packet, Order order) {
  if (rule.generation == 0) {
    rule.recent[widen(rule.next, record.wseq)] = record.ts;
    if (rule.recent.size() > kRecent) rule.recent.erase(rule.recent.begin());
  }
  sink_.record(record, packet, order);
}

void Sequencer::pass_in_order(Rule &rule, const Record &record, Bytes packet,
                              Clock::time_point now) {
  pass(rule, record, packet, Order::kInOrder);
  rule.resumed = false;
  if (record.last()) {
    ++rule.next;
    rule.next_page = 0;
  } else {
    ++rule.next_page;
    rule.pages_deadline = now + limits_.hold;
  }
}

void Sequencer::hold(Rule &rule, Number number, Bytes packet, Clock::time_point now) {
  const bool was_listening = rule.started && !rule.resumed;  // when earlier records were sent
  if (rule.held.empty()) rule.deadline = now + (was_listening ? limits_.hold : limits_.settle);
  Held held;
  held.packet.assign(packet.begin(), packet.end());
  auto decoded = decode(held.packet);
  held.record = std::get<Record>(std::move(*decoded));
  held.arrived = now;
  held_bytes_ += held.packet.size();
  ++rule.held_records;
  rule.held[number].push_back(std::move(held));
}

void Sequencer::add_old(const Uuid &uuid, Rule &rule, Number number, const Record &record,
                        Bytes packet, Clock::time_point now) {
  if (take_missing(rule.missing, number, record.last()))
    return pass(rule, record, packet, Order::kLate);
  const auto passed = rule.recent.find(number);
  if (rule.generation != 0 || (passed != rule.recent.end() && passed->second == record.ts))
    return sink_.event(uuid, Duplicate{record.wseq});
  restart(uuid, rule, 0);
  add(record, packet, now);
}

/* The record was under way when the rule was deleted and added again. */
bool Sequencer::of_former_generation(const Uuid &uuid, Rule &rule, const Record &record,
                                     Bytes packet) {
  for (FormerGeneration &earlier : rule.former) {
    if (earlier.generation != record.generation) continue;
    const Number number = widen(earlier.next, record.wseq);
    if (number >= earlier.next) {
      earlier.missing[earlier.next] = number;
      if (earlier.missing.size() > kMissingRanges) earlier.missing.erase(earlier.missing.begin());
      earlier.next = number + 1;
    }
    if (take_missing(earlier.missing, number, record.last()))
      sink_.record(record, packet, Order::kLate);
    else
      sink_.event(uuid, Duplicate{record.wseq});
    return true;
  }
  return false;
}

/* Passes on the held records whose turn it is. */
void Sequencer::drain(const Uuid &uuid, Rule &rule, Clock::time_point now) {
  for (auto first = rule.held.begin(); first != rule.held.end() && first->first <= rule.next;
       first = rule.held.begin()) {
    const auto node = rule.held.extract(first);
    for (const Held &held : node.mapped()) {
      held_bytes_ -= held.packet.size();
      --rule.held_records;
      if (node.key() == rule.next) {
        pass_in_order(rule, held.record, held.packet, now);
      } else {
        sink_.event(uuid, Duplicate{held.record.wseq});
      }
    }
  }
  // After progress the whole time starts again.
  if (!rule.held.empty()) rule.deadline = now + limits_.hold;
}

/* Gives up waiting for `next` and continues with the first held record. */
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
  // The next gap's wait began when the first record after it arrived, so a row of gaps costs one
  // wait.
  if (!rule.held.empty()) rule.deadline = rule.held.begin()->second.front().arrived + limits_.hold;
}

/* Was the number declared missing? If so and this is its last message, removes it. */
bool Sequencer::take_missing(Ranges &missing, Number number, bool last) {
  auto range = missing.upper_bound(number);
  if (range == missing.begin() || (--range)->second < number) return false;
  if (!last) return true;
  const auto [begin, end] = *range;
  missing.erase(range);
  if (begin < number) missing[begin] = number - 1;
  if (number < end) missing[number + 1] = end;
  return true;
}

/* Declares the rest of a partly passed write missing. */
void Sequencer::declare_missing_pages(const Uuid &uuid, Rule &rule) {
  if (rule.next_page == 0) return;
  sink_.event(uuid, MissingPages{narrow(rule.next), rule.next_page});
  rule.missing[rule.next] = rule.next;
  ++rule.next;
  rule.next_page = 0;
}

void Sequencer::restart(const Uuid &uuid, Rule &rule, std::uint32_t generation) {
  while (!rule.held.empty()) skip_gap(uuid, rule, {});
  declare_missing_pages(uuid, rule);
  sink_.event(uuid, Restarted{narrow(rule.next - 1)});
  Rule next;
  next.known = true;
  next.generation = generation;
  next.former = std::move(rule.former);
  if (rule.generation != 0)
    next.former.push_front({rule.generation, rule.next, std::move(rule.missing)});
  if (next.former.size() > kFormerGenerations) next.former.pop_back();
  // A new generation starts at number 1.
  if (generation != 0) {
    next.started = true;
    next.resumed = rule.resumed;
    next.next = kEpoch + 1;
  }
  rule = std::move(next);
}

void Sequencer::expire(Clock::time_point now) {
  for (auto &[uuid, rule] : rules_) {
    while (!rule.held.empty() && rule.deadline <= now) skip_gap(uuid, rule, now);
    // Whoever was to send the rest has failed, and there has been no change since.
    if (const auto deadline = deadline_of(rule); deadline && *deadline <= now)
      declare_missing_pages(uuid, rule);
  }
}

std::optional<Sequencer::Clock::time_point> Sequencer::deadline_of(const Rule &rule) {
  if (!rule.held.empty()) return rule.deadline;
  if (rule.next_page != 0) return rule.pages_deadline;
  return std::nullopt;
}

std::optional<Sequencer::Clock::time_point> Sequencer::next_deadline() const {
  std::optional<Clock::time_point> earliest;
  for (const auto &[uuid, rule] : rules_) {
    const auto deadline = deadline_of(rule);
    if (deadline && (!earliest || *deadline < *earliest)) earliest = deadline;
  }
  return earliest;
}

void Sequencer::finish() {
  for (auto &[uuid, rule] : rules_) {
    while (!rule.held.empty()) skip_gap(uuid, rule, {});
    declare_missing_pages(uuid, rule);
  }
}

}  // namespace tarn
