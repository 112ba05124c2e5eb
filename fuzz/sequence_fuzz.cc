// SPDX-License-Identifier: GPL-2.0
// Streams of packets through the sequencer, against a plain account of what it was given and of
// what it has said: every packet is passed on or called a duplicate once, whole; the numbers passed
// on in order and the gaps declared leave none out; nothing is held longer or in greater number
// than the limits allow.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "client/messages.h"
#include "client/sequence.h"
#include "fuzz/input.h"
#include "tests/replicate/message_builder.h"

namespace {

using namespace tarn;
using Clock = Sequencer::Clock;

constexpr std::size_t kMostHeld = 8; /* records of a rule */
constexpr std::size_t kMostSteps = 400;
const Sequencer::Limits kLimits{std::chrono::seconds(1), std::chrono::milliseconds(50), kMostHeld,
                                60000};

void check(bool holds) {
  if (!holds) std::abort();
}

/* What was heard of one rule since its numbers last began. */
class Life {
 public:
  enum class Is { kFirst, kLater };
  Life(Is is, std::uint32_t generation) : is_(is), generation_(generation) {}
  /* As an earlier listener left it. */
  explicit Life(Sequencer::Position position) : is_(Is::kFirst), generation_(position.generation) {
    begin(position.last + 1);
  }

  bool is_of(std::uint32_t generation) const { return generation_ == generation; }

  void in_order(const Record &record) {
    if (!begun_) begin(1);
    check(record.generation == generation_);
    check(record.wseq == static_cast<std::uint32_t>(next_));
    if (record.last()) {
      go_to(next_ + 1);
    } else {
      ++pages_;
    }
  }
  /* Of a life that has ended nobody knows how many numbers there were. */
  void late(const Record &record, bool ended) {
    const std::int64_t number = widen(record.wseq);
    if (ended && number >= next_) {
      gaps_.push_back({next_, number});
      next_ = number + 1;
    }
    const auto gap = std::find_if(gaps_.begin(), gaps_.end(), [number](const Gap &g) {
      return g.first <= number && number <= g.last;
    });
    check(gap != gaps_.end());
    if (!record.last()) return;
    const Gap above{number + 1, gap->last};
    gap->last = number - 1;
    gaps_.push_back(above); /* empty ones hold no number */
  }

  void event(const Sequencer::Joined &e) {
    check(!begun_ && e.first != 1);
    begin(e.first);
  }
  void event(const Sequencer::Restarted &e) {
    if (!begun_ && is_ == Is::kLater) begin(1);
    check(begun_ && e.last == static_cast<std::uint32_t>(next_ - 1));
  }
  void event(const Sequencer::Missing &e) {
    if (!begun_ && is_ == Is::kLater) begin(1);
    check(begun_ && pages_ == 0 && e.first == static_cast<std::uint32_t>(next_));
    const std::int64_t last = next_ + (e.last - e.first);
    gaps_.push_back({next_, last});
    go_to(last + 1);
  }
  void event(const Sequencer::MissingPages &e) {
    check(begun_ && pages_ > 0 && e.arrived == pages_);
    check(e.wseq == static_cast<std::uint32_t>(next_));
    gaps_.push_back({next_, next_});
    go_to(next_ + 1);
  }
  void event(const Sequencer::Duplicate &) {}

 private:
  struct Gap {
    std::int64_t first, last;
  };
  void begin(std::uint32_t first) {
    begun_ = true;
    next_ = first;
  }
  void go_to(std::int64_t number) {
    next_ = number;
    pages_ = 0;
  }
  std::int64_t widen(std::uint32_t wseq) const {
    return next_ + static_cast<std::int32_t>(wseq - static_cast<std::uint32_t>(next_));
  }

  Is is_;
  bool begun_ = false;
  std::uint32_t generation_;
  std::int64_t next_ = 0;
  std::uint32_t pages_ = 0; /* of the write that is `next_` */
  std::vector<Gap> gaps_;
};

/* A rule's present life and those before it. */
class Rule {
 public:
  void resumed(Sequencer::Position position) { lives_.emplace_back(position); }
  void given(const Record &record) {
    given_ = record.generation;
    if (lives_.empty()) lives_.emplace_back(Life::Is::kFirst, given_);
  }
  void in_order(const Record &record) { lives_.back().in_order(record); }
  void late(const Record &record) {
    const auto life = std::find_if(lives_.rbegin(), lives_.rend(),
                                   [&record](const Life &l) { return l.is_of(record.generation); });
    check(life != lives_.rend());
    life->late(record, life != lives_.rbegin());
  }
  void event(const Sequencer::Event &event) {
    std::visit([&](const auto &e) { lives_.back().event(e); }, event);
    if (std::holds_alternative<Sequencer::Restarted>(event))
      lives_.emplace_back(Life::Is::kLater, given_);
  }

 private:
  std::vector<Life> lives_;
  std::uint32_t given_ = 0; /* the generation of the record that is being added */
};

class Account : public Sequencer::Sink {
 public:
  void given(const Record &record) {
    ++held_[record.rule];
    ++waiting_[change_text(record)];
    rules_[record.rule].given(record);
  }
  void resumed(const Uuid &rule, Sequencer::Position position) { rules_[rule].resumed(position); }
  /* No rule has more than it may. */
  void check_limits() const {
    for (const auto &[rule, count] : held_) check(count >= 0 && count <= std::ptrdiff_t{kMostHeld});
  }
  void check_nothing_held() const {
    for (const auto &[rule, count] : held_) check(count == 0);
  }

  void record(const Record &record, Bytes, Sequencer::Order order) override {
    --held_[record.rule];
    const auto it = waiting_.find(change_text(record));
    check(it != waiting_.end() && it->second > 0);
    --it->second;
    Rule &rule = rules_[record.rule];
    if (order == Sequencer::Order::kLate) return rule.late(record);
    rule.in_order(record);
  }
  void event(const Uuid &uuid, const Sequencer::Event &event) override {
    if (std::holds_alternative<Sequencer::Duplicate>(event)) --held_[uuid];
    rules_[uuid].event(event);
  }

  /* A record as text, with its data: its views must still be what they were when it was given. */
  static std::string change_text(const Record &record) {
    std::string text = to_string(record.rule) + ' ' + std::to_string(record.wseq) + ' ' +
                       std::to_string(record.ts) + ' ' + std::to_string(record.generation) + ' ' +
                       describe(record.change);
    const auto add = [&text](Bytes bytes) {
      text.append(reinterpret_cast<const char *>(bytes.data()), bytes.size());
    };
    if (const auto *write = std::get_if<Write>(&record.change)) add(write->data);
    if (const auto *page = std::get_if<WritePage>(&record.change)) add(page->data);
    return text;
  }

 private:
  std::map<Uuid, Rule> rules_;
  std::map<Uuid, std::ptrdiff_t> held_;
  std::map<std::string, int> waiting_;
};

/* A packet of a rule, and of one of its numbers, that may be of any time. */
test::Packet next_packet(fuzz::Input &in, unsigned kind) {
  const unsigned which = in.u8();
  test::Stamp stamp;
  stamp.rule = test::rule_uuid(static_cast<std::uint8_t>(1 + which % 2));
  stamp.wseq = kind == 1 ? in.u32() : in.u8();
  stamp.ts = test::kTime + in.u8();
  stamp.generation = which / 2 % 4;
  const std::string path = "/d/" + std::to_string(which);
  if (which & 0x40) {
    const std::string data(which & 0x20 ? 9000 : 10, static_cast<char>(which));
    const auto pages = test::write_data(stamp, path, which, data);
    return pages[in.u8() % pages.size()];
  }
  return test::name_change(OX_OP_UNLINK, stamp, path);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  fuzz::Input in(data, size);
  Account account;
  Sequencer sequencer(account, kLimits);
  Clock::time_point now{};
  if (const unsigned left = in.u8(); left % 4 == 1) {
    const Sequencer::Position position{left / 4 % 4, in.u8()};
    sequencer.resume(test::rule_uuid(1), position);
    account.resumed(test::rule_uuid(1), position);
  }
  for (std::size_t step = 0; step < kMostSteps && !in.empty(); ++step) {
    const unsigned kind = in.u8() % 8;
    if (kind == 0) {
      now += std::chrono::milliseconds(10 * in.u8());
      sequencer.expire(now);
      const auto deadline = sequencer.next_deadline();
      check(!deadline || (*deadline > now && *deadline <= now + kLimits.hold));
    } else {
      test::Packet packet = next_packet(in, kind);
      const auto message = decode(packet);
      check(message.ok());
      const auto &record = std::get<Record>(*message);
      account.given(record);
      sequencer.add(record, packet, now);
      account.check_limits();
      std::fill(packet.begin(), packet.end(), std::byte{0xEE}); /* the caller's again */
    }
  }
  sequencer.finish();
  account.check_nothing_held();
  check(sequencer.holds_nothing() && !sequencer.next_deadline());
  return 0;
}
