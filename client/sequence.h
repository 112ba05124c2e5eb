/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Puts the records of each rule into the order of their numbers.
 *
 * The module numbers a record before it sends it, so records that several programs cause at once
 * may arrive out of order. A record that comes early is held back until those before it are there.
 * If they do not come within a time, or too much would have to be held, they are declared missing
 * (a gap), and delivery continues behind them. A large write is several messages of one number; its
 * pages pass as they come, so that no write is ever held whole unless it is early.
 *
 * What can happen to a rule's numbers, and what is reported:
 *  - the first record seen is not number 1: the rule is older than the listener. After a short wait
 * for earlier ones (kSettle) the lowest becomes the start: Joined.
 *  - a gap: Missing, with the numbers. Records of the gap that come after all are passed on as
 * late.
 *  - pages of a write are missing at its end: MissingPages.
 *  - an old number once more: Duplicate, dropped.
 *  - a record of another generation: the rule was deleted and made anew, its numbers begin again
 * with 1: Restarted. What was changed in between was not captured, so this is a loss. A record of
 * an earlier life that comes after that is passed on as late.
 *  - an old number in a rule without generations (an older module): the rule was made anew, unless
 * the record is one that has just passed, of the same number and time. The clock is not used: it
 * may go back.
 *
 * One thread. Memory is bounded by Limits. Time is the caller's, so that tests need not wait.
 */
#ifndef TARN_CLIENT_SEQUENCE_H
#define TARN_CLIENT_SEQUENCE_H

#include <chrono>
#include <cstdint>
#include <deque>
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
  /* The rule was made anew: what was changed between its two lives is missing. */
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

  /* Up to where a rule has been dealt with. */
  struct Position {
    std::uint32_t generation;
    std::uint32_t last; /* the number; those after it have not been dealt with */
    bool operator==(const Position &) const = default;
  };

  /* An earlier listener dealt with the rule's records up to there; what is missing behind it was
   * sent while no daemon was registered, and is declared missing after kSettle. Before the rule's
   * first record. */
  void resume(const Uuid &uuid, Position position);

  /* Of all rules of which a record has passed, or that were resumed. */
  std::map<Uuid, Position> positions() const;

  /* A record that has arrived, with the packet that it was decoded from (copied if it has to wait).
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
    Clock::time_point arrived;
  };
  /* Numbers are 64-bit inside, so that the 32-bit ones on the wire may wrap. */
  using Number = std::uint64_t;
  /* first -> last, not overlapping, newest kMissingRanges only */
  using Ranges = std::map<Number, Number>;
  /* What is left of a life of a rule that was made anew. */
  struct FormerLife {
    std::uint32_t generation;
    Number next;
    Ranges missing;
  };
  struct Rule {
    bool known = false;           /* a record was seen, or the rule was resumed */
    std::uint32_t generation = 0; /* 0: of a module that has none */
    bool started = false;
    bool resumed = false;        /* and none of this listener's records has passed yet */
    Number next = 0;             /* the number that is to be passed on next */
    std::uint32_t next_page = 0; /* pages of it that have been passed on */
    std::map<Number, std::vector<Held>> held;
    std::size_t held_records = 0;
    Clock::time_point deadline; /* when held is not empty: how long to wait for `next` */
    Ranges missing;
    std::deque<FormerLife> former; /* the newest kFormerLives, with generations only */
    /* Without generations only: number -> time of what has passed, newest kRecent only. */
    std::map<Number, std::uint64_t> recent;
  };
  static constexpr std::size_t kMissingRanges = 1024;
  static constexpr std::size_t kFormerLives = 8;
  static constexpr std::size_t kRecent = 1024;

  static Number widen(Number next, std::uint32_t wseq);
  void pass(Rule &rule, const Record &record, Order order);
  void pass_in_order(Rule &rule, const Record &record);
  void hold(Rule &rule, Number number, Bytes packet, Clock::time_point now);
  void old_number(const Uuid &uuid, Rule &rule, Number number, const Record &record, Bytes packet,
                  Clock::time_point now);
  void drain(const Uuid &uuid, Rule &rule, Clock::time_point now);
  void skip_gap(const Uuid &uuid, Rule &rule, Clock::time_point now);
  void give_up_pages(const Uuid &uuid, Rule &rule);
  void restart(const Uuid &uuid, Rule &rule, std::uint32_t generation);
  bool of_a_former_life(const Uuid &uuid, Rule &rule, const Record &record);
  static bool take_missing(Ranges &missing, Number number, bool last);

  Sink &sink_;
  Limits limits_;
  std::map<Uuid, Rule> rules_;
  std::size_t held_bytes_ = 0;
};

}  // namespace tarn

#endif
