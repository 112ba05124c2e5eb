/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Puts the records of each rule into the order of their numbers.
 *
 * The module numbers a record before it sends it, so records of concurrent programs may arrive out
 * of order. An early record is held until those before it have arrived. If they do not arrive in
 * time, or too much is held, they are declared missing (a gap), and delivery continues after them.
 * A large write is several messages of one number; its pages are passed on as they come, so that
 * only an early write is held whole.
 *
 * Reported events:
 *  - The first record seen is not number 1: the rule is older than the listener. After a short wait
 *    for earlier ones (Limits::settle) the lowest number becomes the start: Joined.
 *  - A gap: Missing, with the numbers. Records of the gap that arrive afterwards are passed on as
 *    late.
 *  - Pages are missing at the end of a write, and a later record or none at all comes for as long
 * as records are held: MissingPages.
 *  - An old number again: Duplicate, dropped.
 *  - A record of another generation: the rule was deleted and added again, its numbers restart at
 *    1: Restarted. Changes in between were not captured, so this is a loss. Records of an earlier
 *    generation that arrive afterwards are passed on as late.
 *  - An old number of a rule without generations (an older module): Restarted too, unless number
 *    and time are those of a recently passed record. The clock alone does not decide: it may go
 *    back.
 *
 * One thread. Memory is bounded by Limits. The caller passes the time, so that tests need not wait.
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
    /* The module waits at most a second per message for the daemon, so delayed records arrive
     * within this time. */
    Clock::duration hold = std::chrono::seconds(5);
    Clock::duration settle = std::chrono::milliseconds(100);
    std::size_t records = 8192;                /* per rule */
    std::size_t bytes = std::size_t{64} << 20; /* all rules together */
  };

  struct Joined {
    std::uint32_t first;
  };
  /* The rule was deleted and added again: changes in between are missing. */
  struct Restarted {
    std::uint32_t last; /* of the earlier generation */
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

  /* Receives the records and events. A record's views, into its packet, are valid until the call
   * returns. */
  class Sink {
   public:
    virtual ~Sink() = default;
    virtual void record(const Record &record, Bytes packet, Order order) = 0;
    virtual void event(const Uuid &rule, const Event &event) = 0;
  };

  Sequencer(Sink &sink, Limits limits) : sink_(sink), limits_(limits) {}
  explicit Sequencer(Sink &sink) : Sequencer(sink, Limits{}) {}

  /* The last record of a rule that was handled. */
  struct Position {
    std::uint32_t generation;
    std::uint32_t last; /* its number */
    bool operator==(const Position &) const = default;
  };

  /* An earlier listener handled the rule's records up to `position`. Missing ones after it were
   * sent while no daemon was registered, and are declared missing after Limits::settle. Call it
   * before the rule's first record. */
  void resume(const Uuid &uuid, Position position);

  /* The positions of all rules that were resumed or had a record passed on. */
  std::map<Uuid, Position> positions() const;

  /* Takes a record that has arrived and its packet, which is copied if the record must be held. */
  void add(const Record &record, Bytes packet, Clock::time_point now);

  /* Declares missing what is overdue. Call it at next_deadline(). */
  void expire(Clock::time_point now);
  std::optional<Clock::time_point> next_deadline() const;

  /* Call it when no more records will come: declares gaps and passes on all held records. */
  void finish();

  bool holds_nothing() const { return held_bytes_ == 0; }

 private:
  struct Held {
    std::vector<std::byte> packet;
    Record record; /* views into packet */
    Clock::time_point arrived;
  };
  /* Numbers are widened to 64 bits, as those on the wire may wrap. */
  using Number = std::uint64_t;
  /* first -> last, not overlapping, only the newest kMissingRanges */
  using Ranges = std::map<Number, Number>;
  /* An earlier generation of a rule. */
  struct FormerGeneration {
    std::uint32_t generation;
    Number next;
    Ranges missing;
  };
  struct Rule {
    bool known = false;           /* a record was seen, or the rule was resumed */
    std::uint32_t generation = 0; /* 0: the module has none */
    bool started = false;
    bool resumed = false;        /* and no record has been passed on since */
    Number next = 0;             /* the next number to pass on */
    std::uint32_t next_page = 0; /* pages of `next` that have been passed on */
    std::map<Number, std::vector<Held>> held;
    std::size_t held_records = 0;
    Clock::time_point deadline;       /* for `next`, while records are held */
    Clock::time_point pages_deadline; /* for the next page, while none is */
    Ranges missing;
    std::deque<FormerGeneration> former; /* the newest kFormerGenerations; only with generations */
    /* number -> time of passed records, the newest kRecent; only without generations. */
    std::map<Number, std::uint64_t> recent;
  };
  static constexpr std::size_t kMissingRanges = 1024;
  static constexpr std::size_t kFormerGenerations = 8;
  static constexpr std::size_t kRecent = 1024;

  static Number widen(Number next, std::uint32_t wseq);
  void pass(Rule &rule, const Record &record, Bytes packet, Order order);
  void pass_in_order(Rule &rule, const Record &record, Bytes packet, Clock::time_point now);
  static std::optional<Clock::time_point> deadline_of(const Rule &rule);
  void hold(Rule &rule, Number number, Bytes packet, Clock::time_point now);
  void add_old(const Uuid &uuid, Rule &rule, Number number, const Record &record, Bytes packet,
               Clock::time_point now);
  void drain(const Uuid &uuid, Rule &rule, Clock::time_point now);
  void skip_gap(const Uuid &uuid, Rule &rule, Clock::time_point now);
  void declare_missing_pages(const Uuid &uuid, Rule &rule);
  void restart(const Uuid &uuid, Rule &rule, std::uint32_t generation);
  bool of_former_generation(const Uuid &uuid, Rule &rule, const Record &record, Bytes packet);
  static bool take_missing(Ranges &missing, Number number, bool last);

  Sink &sink_;
  Limits limits_;
  std::map<Uuid, Rule> rules_;
  std::size_t held_bytes_ = 0;
};

}  // namespace tarn

#endif
