/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What a receiver may see of changes and rules that come and go beside each other.
 *
 * A clock counts up with each look at it. Whoever makes a change, installs or removes a rule notes
 * the clock before and after. Afterwards it is known of each rule which changes it must have had
 * (they lie between its installation and the begin of its removal), which it cannot have had (they
 * ended before its installation began or began after its removal had ended), and which it may have
 * had.
 *
 * Changes come in rounds: one file with all that is done to it. The names and the written bytes of
 * a round hold its number, so that each record tells whose it is. Notes are made by the thread that
 * does what is noted; the receiver looks at them once those threads are done, but for what is fixed
 * before a change begins.
 */
#ifndef TESTS_MODULE_CONCURRENCY_MODEL_H
#define TESTS_MODULE_CONCURRENCY_MODEL_H

#include "tests/module/kit/mount.h"

namespace concurrency {

inline constexpr unsigned kRounds = 256;
inline constexpr unsigned kRules = 768;
inline constexpr unsigned kOthers = 4096;
inline constexpr unsigned kFlushes = 256;
inline constexpr unsigned kPeriods = 64;

/* The changes of a round, in their order; each makes one record. */
enum step : unsigned {
  kCreate,
  kCreateAttr,
  kSmallWrite,
  kLargeWrite,
  kChmod,
  kRename,
  kLink,
  kSymlink,
  kUnlinkLink,
  kUnlinkSymlink,
  kUnlinkFile,
  kMkdir,
  kMkdirAttr,
  kRmdir,
  kSteps
};

inline constexpr unsigned kChanges = kRounds * kSteps;

inline constexpr unsigned kSmallBytes = 1500;
inline constexpr unsigned kLargeBytes = 9000;
inline constexpr unsigned kLargeAt = 4000;
inline constexpr unsigned kLargeMessages = 3;

/* Directories below the mount; a rule covers a set of them, as bits. */
inline constexpr const char *kDirs[] = {"d0", "d1", "d2", "d3", "s"};
inline constexpr unsigned kShared = 4; /* the first ones are for all writers */
inline constexpr unsigned kOwn = 4;    /* for rules that get stopped */

/* A time of the clock; 0: never. */
typedef unsigned moment;
inline constexpr moment kForever = ~0u;

struct window {
  moment begin, end;
};

struct rule_life {
  unsigned covers;
  window added, removed, stopped;
  int removal, stop;       /* what they returned */
  struct prule_node *node; /* with a reference, until the end */
};

/* Path of a file of a round. The letter tells the files of a round from each other. */
struct round_path {
  char text[64];
  round_path(const char *top, unsigned dir, char letter, unsigned round) {
    snprintf(text, sizeof(text), "%s/%s/%c%u", top, kDirs[dir], letter, round);
  }
};

/* Byte `pos` of what change `id` writes: any aligned word of it tells the change. */
inline unsigned written_word(unsigned id, unsigned pos) {
  return id + pos / 4 * 0x01000193u;
}
inline void fill_written(char *data, unsigned id, unsigned size) {
  for (unsigned pos = 0; pos < size; pos += 4) {
    const unsigned word = written_word(id, pos);
    memcpy(data + pos, &word, sizeof(word));
  }
}

/* Begins with all bytes zero. */
class model {
 public:
  /* ---- notes ---- */

  /* On x86-64 this orders all that was done before and will be done after it; it says nothing of
   * that to the thread sanitizer, which shall not take it for a lock. */
  moment now() { return __atomic_add_fetch(&clock_, 1, __ATOMIC_RELAXED); }

  unsigned new_round(unsigned dir, unsigned other_dir) {
    const unsigned round = __atomic_fetch_add(&rounds_, 1, __ATOMIC_RELAXED);
    BUG_ON(round >= kRounds);
    dirs_[round][0] = dir;
    dirs_[round][1] = other_dir;
    return round;
  }
  struct rule_life &new_rule(unsigned covers, unsigned *number) {
    *number = __atomic_fetch_add(&rule_count_, 1, __ATOMIC_RELAXED);
    BUG_ON(*number >= kRules);
    rules_[*number].covers = covers;
    return rules_[*number];
  }
  bool may_add_rules() const {
    return __atomic_load_n(&rule_count_, __ATOMIC_RELAXED) < kRules - 32;
  }
  unsigned rule_count() const { return __atomic_load_n(&rule_count_, __ATOMIC_RELAXED); }
  struct rule_life &rule(unsigned number) {
    return rules_[number];
  }
  window &change(unsigned round, step s) { return changes_[round * kSteps + s]; }
  /* A change that no rule covers, or a flush of all rules. */
  window &new_other() { return next_of(others_, other_count_, kOthers); }
  window &new_flush() { return next_of(flushes_, flush_count_, kFlushes); }
  /* A time in which one daemon was registered and received all. */
  window &new_period() { return next_of(periods_, period_count_, kPeriods); }

  unsigned dir_of(unsigned round, unsigned which) const { return dirs_[round][which]; }

  static void name_rule(uuid_t uuid, unsigned number) {
    memset(uuid, 0xEE, sizeof(uuid_t));
    uuid[0] = static_cast<unsigned char>(1 + number % 255);
    uuid[1] = static_cast<unsigned char>(1 + number / 255);
  }
  /* The rule's number, or -1 for what is not a rule's name. */
  int rule_named(const uuid_t uuid) const {
    for (unsigned i = 2; i < sizeof(uuid_t); ++i) {
      if (uuid[i] != 0xEE) return -1;
    }
    const int number = (uuid[1] - 1) * 255 + uuid[0] - 1;
    return uuid[0] && uuid[1] && number < static_cast<int>(rule_count()) ? number : -1;
  }

  /* ---- what is received ---- */

  /* One message for the daemon at `port`. */
  void take(const test_message &m, unsigned port);
  unsigned records() const { return records_; }
  unsigned answers(int type) const {
    return type == OX_SO_REP_ADD ? added_ : type == OX_SO_REP_DEL ? deleted_ : flushed_;
  }

  /* ---- the judgement, once all threads have ended ---- */

  enum losses {
    kNothingLost,
    kSomeLost,       /* whole records, or the end of one */
    kBetweenDaemons, /* anything outside the periods */
  };
  /* Looks at every rule with every change. The number of records that were lost, whole or in part.
   */
  unsigned judge(losses expected);

  /* Reports what must not be. */
  void fail(const char *what, long long left, long long right) {
    if (failures_++ < 8) case_check_failed(__FILE__, __LINE__, what, left, right);
  }

 private:
  /* When a rule was there for sure, and when it may have been. */
  struct presence {
    window sure, possible, stopped;
  };

  window &next_of(window *list, unsigned &count, unsigned room) {
    const unsigned i = __atomic_fetch_add(&count, 1, __ATOMIC_RELAXED);
    BUG_ON(i >= room);
    return list[i];
  }

  static unsigned messages_of(unsigned s) { return s == kLargeWrite ? kLargeMessages : 1; }
  unsigned dirs_touched(unsigned round, unsigned s) const {
    const unsigned a = 1u << dirs_[round][0], b = 1u << dirs_[round][1];
    if (s == kRename || s == kLink) return a | b;
    return s == kUnlinkFile ? b : a;
  }
  presence presence_of(const rule_life &rule) const;
  bool may_be_flushed(const rule_life &rule) const;
  bool in_period(const window &change) const;
  unsigned judge_numbers(unsigned number, losses expected);
  void judge_change(unsigned number, const presence &p, unsigned id, losses expected);
  void judge_notices(unsigned number, const presence &p, losses expected);

  int named_change(const test_message &m);
  int written_change(const test_message &m);
  void take_record(const test_message &m);
  void take_notice(const test_message &m);
  void take_answer(const test_message &m);

  unsigned clock_, rounds_, rule_count_, other_count_, flush_count_, period_count_;
  unsigned char dirs_[kRounds][2];
  window changes_[kChanges];
  rule_life rules_[kRules];
  window others_[kOthers];
  window flushes_[kFlushes];
  window periods_[kPeriods];

  /* The receiver's alone. */
  unsigned char seen_[kRules][kChanges];           /* bit i: message i of the record came */
  unsigned short by_number_[kRules][kChanges + 1]; /* which change has a number, plus 1 */
  unsigned notices_[kRules];
  unsigned records_, added_, deleted_, flushed_, failures_;
};

}  // namespace concurrency

#endif
