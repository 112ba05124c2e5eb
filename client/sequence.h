/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Puts the records of each rule into the order of their numbers.
 *
 * The module numbers a record before it sends it, so records that several programs cause at once
 * may arrive out of order. A record that comes early is held back until those before it are there.
 * If they do not come within a time, or too much would have to be held, they are declared missing
 * (a gap) and the road is free again. A large write is several messages of one number; its pages
 * pass as they come, so that no write is ever held whole unless it is early.
 *
 * What can happen to a rule's numbers, and what is reported:
 *  - the first record seen is not number 1: the rule is older than the listener. After a short wait
 * for earlier ones (kSettle) the lowest becomes the start: Joined.
 *  - a gap: Missing, with the numbers. Records of the gap that come after all are passed on as
 * late.
 *  - pages of a write are missing at its end: MissingPages.
 *  - an old number once more: Duplicate, dropped.
 *  - an old number, but captured after everything seen so far: the rule was deleted and made anew,
 * its numbers begin again: Restarted.
 *
 * One thread. Memory is bounded by Limits. Time is the caller's, so that tests need not wait.
 */
#ifndef TARN_CLIENT_SEQUENCE_H
#define TARN_CLIENT_SEQUENCE_H

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "client/messages.h"

namespace tarn {

class Sequencer {
 public:
  using Clock = std::chrono::steady_clock;

  struct Limits {
    /* The module waits at most a second for the daemon per message, so what is on its way arrives
     * in this time. */
    Clock::duration hold = std::chrono::seconds(5);
    Clock::duration settle = std::chrono::milliseconds(100);
    std::size_t records = 8192;                /* per rule */
    std::size_t bytes = std::size_t{64} << 20; /* all rules together */
  };

  struct Joined {
    std::uint32_t first;
  };
  struct Restarted {
    std::uint32_t last; /* of the old numbers */
  };
  struct Missing {
    std::uint32_t first;
    std::uint32_t last;
  };
  struct MissingPages {
    std::uint32_t wseq;
    std::uint32_t arrived;
  };
  struct Duplicate {
    std::uint32_t wseq;
  };
  using Event = std::variant<Joined, Restarted, Missing, MissingPages, Duplicate>;

  enum class Order { kInOrder, kLate };

  /* Who gets the records and the events. A record's views last until the call returns. */
  class Sink {
   public:
    virtual ~Sink() = default;
    virtual void record(const Record &record, Order order) = 0;
    virtual void event(const Uuid &rule, const Event &event) = 0;
  };

  Sequencer(Sink &sink, Limits limits) : sink_(sink), limits_(limits) {}
  explicit Sequencer(Sink &sink) : Sequencer(sink, Limits{}) {}

  /* A record that has arrived, with the packet that it was decoded from (kept, if it has to wait).
   */
  void add(const Record &record, Bytes packet, Clock::time_point now);

  /* Declares missing what has been waited for long enough. Call it at next_deadline(). */
  void expire(Clock::time_point now);
  std::optional<Clock::time_point> next_deadline() const;

  /* Nothing more will come: declares missing whatever is, and passes on what was held. */
  void finish();

  bool holds_nothing() const { return held_bytes_ == 0; }

 private:
  struct Held {
    std::vector<std::byte> packet;
    Record record; /* views into packet */
  };
  /* Numbers are 64-bit inside, so that the 32-bit ones on the wire may wrap. */
  using Number = std::uint64_t;
  struct Rule {
    bool started = false;
    Number next = 0;             /* the number that is to be passed on next */
    std::uint32_t next_page = 0; /* pages of it that have been passed on */
    std::uint64_t newest_ts = 0; /* the latest capture time passed on */
    std::map<Number, std::vector<Held>> held;
    std::size_t held_records = 0;
    Clock::time_point deadline; /* when held is not empty: how long to wait for `next` */
    std::map<Number, Number>
        missing; /* first -> last, not overlapping, newest kMissingRanges only */
  };
  static constexpr std::size_t kMissingRanges = 1024;

  static Number widen(const Rule &rule, std::uint32_t wseq);
  void pass(Rule &rule, const Record &record, Order order);
  void pass_in_order(Rule &rule, const Record &record);
  void hold(Rule &rule, Number number, Bytes packet, Clock::time_point now);
  void old_number(const Uuid &uuid, Rule &rule, Number number, const Record &record, Bytes packet,
                  Clock::time_point now);
  void drain(const Uuid &uuid, Rule &rule, Clock::time_point now);
  void skip_gap(const Uuid &uuid, Rule &rule, Clock::time_point now);
  void give_up_pages(const Uuid &uuid, Rule &rule);
  void restart(const Uuid &uuid, Rule &rule);
  static bool take_missing(Rule &rule, Number number, bool last);

  Sink &sink_;
  Limits limits_;
  std::map<Uuid, Rule> rules_;
  std::size_t held_bytes_ = 0;
};

}  // namespace tarn

#endif
