// SPDX-License-Identifier: GPL-2.0
#include "tests/module/concurrency_model.h"

namespace concurrency {

namespace {

constexpr unsigned kAttrOfCreation = ATTR_MODE | ATTR_UID | ATTR_GID | ATTR_CTIME;

bool all_seen(unsigned seen, unsigned messages) {
  return seen == (1u << messages) - 1;
}
/* The first ones, or none. */
bool is_prefix(unsigned seen) {
  return (seen & (seen + 1)) == 0;
}
bool within(const window &inner, const window &outer) {
  return inner.begin > outer.begin && inner.end < outer.end;
}
bool apart(const window &a, const window &b) {
  return a.begin > b.end || a.end < b.begin;
}
moment earlier(moment a, moment b) {
  return a < b ? a : b;
}
moment or_forever(moment m) {
  return m ? m : kForever;
}

/* The round in the last component of a path that begins with the letter; -1: another path. */
int round_in(const char *path, char *letter) {
  const char *name = strrchr(path, '/');
  if (!name || !name[1]) return -1;
  *letter = name[1];
  int round = 0;
  const char *digit = name + 2;
  for (; *digit >= '0' && *digit <= '9' && round < 1000000; ++digit)
    round = round * 10 + *digit - '0';
  return *digit || digit == name + 2 ? -1 : round;
}

int step_of(const struct ox_msg *msg, char letter) {
  switch (msg->op) {
    case OX_OP_CREATE:
      return kCreate;
    case OX_OP_MKDIR:
      return kMkdir;
    case OX_OP_RMDIR:
      return kRmdir;
    case OX_OP_SYMLINK:
      return kSymlink;
    case OX_OP_LINK:
      return kLink;
    case OX_OP_RENAME:
      return kRename;
    case OX_OP_UNLINK:
      return letter == 'l' ? kUnlinkLink : letter == 's' ? kUnlinkSymlink : kUnlinkFile;
    case OX_OP_SETATTR: {
      const auto *attr = reinterpret_cast<const struct ox_msg_attr *>(msg);
      if (attr->com.ia_valid != static_cast<int>(kAttrOfCreation)) return kChmod;
      return letter == 'd' ? kMkdirAttr : kCreateAttr;
    }
    default:
      return -1;
  }
}

/* The letters of the paths of a step: of the first, of the second or 0. */
struct step_letters {
  char first, second;
};
constexpr step_letters kLetters[kSteps] = {
    {'f', 0}, {'f', 0}, {'f', 0}, {'f', 0}, {'f', 0}, {'f', 'g'}, {'g', 'l'},
    {'s', 0}, {'l', 0}, {'s', 0}, {'g', 0}, {'d', 0}, {'d', 0},   {'d', 0},
};
/* Which of a round's two directories a letter's file is in. */
unsigned dir_of_letter(char letter) {
  return letter == 'g' ? 1 : 0;
}

}  // namespace

/* ---- what is received ---- */

void model::take(const test_message &m, unsigned port) {
  if (m.received < OX_NLMSG_HDRLEN || m.head()->nlmsg_pid != port)
    return fail("a message for this daemon", m.received, port);
  switch (m.type()) {
    case OX_OP_COLLECT:
    case OX_OP_WRITE:
      return take_record(m);
    case OX_OP_STOP_RULE:
      return take_notice(m);
    default:
      return take_answer(m);
  }
}

/* The change that a record of names or attributes tells of; -1 when any field of it is not as that
 * change has it. */
int model::named_change(const test_message &m) {
  const bool attributes = m.msg()->op == OX_OP_SETATTR;
  const auto *para = m.para();
  const char *path = attributes ? m.attr()->name : para->data;
  const long ends = attributes ? OX_MSG_ATTR_LEN + 12 + m.attr()->dlen2
                               : OX_MSG_PARA_LEN + para->dlen1 + para->dlen2;
  if (ends != m.length()) return -1;
  char letter = 0;
  const int round = round_in(path, &letter);
  const int step = step_of(m.msg(), letter);
  if (round < 0 || round >= static_cast<int>(kRounds) || step < 0) return -1;
  const step_letters &letters = kLetters[step];
  /* A rename and a link are told by their first path, all by the letter that belongs to them. */
  const round_path first("/lower", dirs_[round][dir_of_letter(letters.first)], letters.first,
                         round);
  if (strcmp(first.text, path)) return -1;
  if (attributes) return round * kSteps + step;
  const char *second = para->data + para->dlen1;
  if (letters.second) {
    const round_path other("/lower", dirs_[round][dir_of_letter(letters.second)], letters.second,
                           round);
    if (!para->dlen2 || strcmp(other.text, second)) return -1;
  } else if (step == kSymlink) {
    if (!para->dlen2 || strcmp(second, "../target")) return -1;
  } else if (para->dlen2) {
    return -1;
  }
  return round * kSteps + step;
}

/* The change that a message with written bytes tells of, by those bytes, each of which must be the
 * change's. */
int model::written_change(const test_message &m) {
  const auto *wr = m.wr();
  if (wr->dlen2 < 4 || OX_MSG_WR_LEN + static_cast<long>(wr->dlen1) + wr->dlen2 != m.length())
    return -1;
  const bool small = wr->off < kLargeAt;
  const unsigned start = static_cast<unsigned>(small ? wr->off : wr->off - kLargeAt);
  const char *data = wr->data + wr->dlen1;
  unsigned word;
  memcpy(&word, data, sizeof(word));
  const unsigned id = word - written_word(0, start);
  if (id >= kChanges || id % kSteps != (small ? kSmallWrite : kLargeWrite)) return -1;
  if (start + wr->dlen2 > (small ? kSmallBytes : kLargeBytes)) return -1;
  for (unsigned pos = 0; pos < wr->dlen2; pos += 4) {
    memcpy(&word, data + pos, sizeof(word));
    if (word != written_word(id, start + pos)) return -1;
  }
  if (wr->pagenr == 0) {
    const unsigned round = id / kSteps;
    const round_path path("/lower", dirs_[round][0], 'f', round);
    if (strcmp(path.text, wr->data)) return -1;
  } else if (wr->dlen1) {
    return -1;
  }
  return static_cast<int>(id);
}

void model::take_record(const test_message &m) {
  const struct ox_msg *msg = m.msg();
  const int rule = rule_named(msg->uuid);
  const bool write = msg->op == OX_OP_WRITE;
  const int id = write ? written_change(m) : named_change(m);
  if (rule < 0 || id < 0) return fail("a record of a known rule and a whole change", rule, id);
  const auto *wr = m.wr();
  const unsigned messages = messages_of(static_cast<unsigned>(id) % kSteps);
  const unsigned index = write ? wr->pagenr : 0;
  if (index >= messages || (write && wr->pages != messages) ||
      (m.type() == OX_OP_WRITE) != (messages > 1))
    return fail("a message of a record", index, messages);
  if (msg->wseq != m.head()->nlmsg_seq || msg->wseq == 0 || msg->wseq > kChanges)
    return fail("the number of a record", msg->wseq, m.head()->nlmsg_seq);

  unsigned short &holder = by_number_[rule][msg->wseq];
  if (holder && holder != id + 1) fail("a number for one change", holder - 1, id);
  holder = static_cast<unsigned short>(id + 1);
  unsigned char &seen = seen_[rule][id];
  if (seen & 1u << index) fail("a message once", id, index);
  seen = static_cast<unsigned char>(seen | 1u << index);
  ++records_;
}

void model::take_notice(const test_message &m) {
  const int rule = m.length() == OX_UUID_LEN ? rule_named(m.payload<unsigned char>()) : -1;
  if (rule < 0) return fail("a notice of a known rule", rule, m.length());
  ++notices_[rule];
}

void model::take_answer(const test_message &m) {
  ox_s32_t result;
  if (m.length() != sizeof(result)) return fail("an answer of four bytes", m.type(), m.length());
  memcpy(&result, m.payload<char>(), sizeof(result));
  switch (m.type()) {
    case OX_SO_REP_ADD:
      ++added_;
      break;
    case OX_SO_REP_DEL:
      ++deleted_;
      if (result == OX_ERR_NOENT) result = 0; /* a flush was faster */
      break;
    case OX_SO_REP_FLUSH:
      ++flushed_;
      break;
    default:
      fail("a message of a known type", m.type(), 0);
  }
  if (result) fail("the result of a rule message", m.type(), result);
}

/* ---- the judgement ---- */

model::presence model::presence_of(const rule_life &rule) const {
  presence p;
  p.sure = {rule.added.end, or_forever(rule.removed.begin)};
  p.possible = {rule.added.begin, or_forever(rule.removed.end)};
  for (unsigned i = 0; i < flush_count_; ++i) {
    if (flushes_[i].end > rule.added.begin) p.sure.end = earlier(p.sure.end, flushes_[i].begin);
    if (flushes_[i].begin > rule.added.end)
      p.possible.end = earlier(p.possible.end, flushes_[i].end);
  }
  p.stopped = {kForever, kForever};
  if (rule.stopped.begin && rule.stop) p.stopped = rule.stopped;
  return p;
}

bool model::may_be_flushed(const rule_life &rule) const {
  for (unsigned i = 0; i < flush_count_; ++i) {
    if (!apart(flushes_[i], {rule.added.begin, rule.removed.end})) return true;
  }
  return false;
}

bool model::in_period(const window &change) const {
  for (unsigned i = 0; i < period_count_; ++i) {
    if (within(change, periods_[i])) return true;
  }
  return false;
}

void model::judge_change(unsigned number, const presence &p, unsigned id, losses expected) {
  const window &change = changes_[id];
  const unsigned seen = seen_[number][id];
  const unsigned messages = messages_of(id % kSteps);
  const bool covered = rules_[number].covers & dirs_touched(id / kSteps, id % kSteps);
  const window sure = {p.sure.begin, earlier(p.sure.end, p.stopped.begin)};
  const window possible = {p.possible.begin, earlier(p.possible.end, p.stopped.end)};
  if (seen && (!covered || apart(change, possible)))
    return fail("no record of a rule that was not there", number, id);
  const bool due = expected == kNothingLost || (expected == kBetweenDaemons && in_period(change));
  if (due && covered && within(change, sure) && !all_seen(seen, messages))
    return fail("all records of a rule that was there", number, id);
  if (expected == kNothingLost && seen && !all_seen(seen, messages))
    fail("a whole record", number, id);
  if (expected == kSomeLost && !is_prefix(seen)) fail("a record up to what was lost", number, id);
}

/* Each number up to the rule's last is of a record that came or was lost; how many were lost, whole
 * or in part. */
unsigned model::judge_numbers(unsigned number, losses expected) {
  const rule_life &rule = rules_[number];
  if (!rule.node) return 0;
  const unsigned last = static_cast<unsigned>(atomic_read(&rule.node->transnr));
  unsigned lost = 0;
  for (unsigned i = 1; i <= kChanges; ++i) {
    const unsigned id = by_number_[number][i];
    if (i > last && id) fail("a number that was given", number, i);
    if (i > last) continue;
    if (!id || !all_seen(seen_[number][id - 1], messages_of((id - 1) % kSteps))) {
      ++lost;
      if (expected == kNothingLost) fail("no gap in a rule's numbers", number, i);
    }
  }
  return lost;
}

void model::judge_notices(unsigned number, const presence &p, losses expected) {
  unsigned least = 0, most = 0;
  const auto count = [&](const window &change) {
    if (!change.end) return;
    const window told = {p.stopped.end, p.sure.end};
    const window may_tell = {p.stopped.begin, p.possible.end};
    if (within(change, told)) ++least;
    if (!apart(change, may_tell)) ++most;
  };
  if (p.stopped.begin != kForever) {
    least = most = 1; /* when it is stopped */
    for (unsigned id = 0; id < rounds_ * kSteps; ++id) count(changes_[id]);
    for (unsigned i = 0; i < other_count_; ++i) count(others_[i]);
  }
  if (notices_[number] > most) fail("no more notices than changes", notices_[number], most);
  if (expected == kNothingLost && notices_[number] < least)
    fail("a notice for every change", notices_[number], least);
}

unsigned model::judge(losses expected) {
  unsigned lost = 0;
  for (unsigned number = 0; number < rule_count_; ++number) {
    const rule_life &rule = rules_[number];
    const presence p = presence_of(rule);
    if (rule.removed.end && rule.removal && rule.removal != OX_ERR_NOENT)
      fail("a rule is removed", number, rule.removal);
    if (rule.stopped.begin && !rule.stop && !may_be_flushed(rule))
      fail("a rule is stopped by a record without memory", number, rule.stop);
    if (rule.removal == OX_ERR_NOENT && !may_be_flushed(rule))
      fail("a rule is there until it is removed", number, rule.removal);
    for (unsigned id = 0; id < rounds_ * kSteps; ++id) {
      if (changes_[id].end) judge_change(number, p, id, expected);
    }
    judge_notices(number, p, expected);
    lost += judge_numbers(number, expected);
  }
  return lost;
}

}  // namespace concurrency
