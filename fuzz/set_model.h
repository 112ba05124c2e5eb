/* SPDX-License-Identifier: GPL-2.0 */
/* The rule set and the directory set as their callers see them, and the records that they are
 * given. */
#ifndef FUZZ_SET_MODEL_H
#define FUZZ_SET_MODEL_H

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/input.h"
#include "fuzz/fuzz_kernel.h"
#include "fuzz/uk_fuzz.h"
#include "module/os_public/Include/ox_msg.h"
#include "tests/oracle/plain_rules.h"

namespace fuzz {

/* Records of one kind under their identifiers. */
class SetModel {
 public:
  explicit SetModel(std::size_t record_size) : record_size_(record_size) {}

  int add(const std::string &record) {
    if (find(record)) return OX_ERR_EXIST;
    records_.push_back(record);
    return 0;
  }
  int remove(const std::string &uuid) {
    const std::string *record = find(uuid);
    if (!record) return OX_ERR_NOENT;
    records_.erase(records_.begin() + (record - records_.data()));
    return 0;
  }
  void flush() { records_.clear(); }
  /* The record that begins with that identifier, which a zero byte ends. */
  const std::string *find(const std::string &uuid) const {
    for (const std::string &record : records_)
      if (std::strncmp(record.data(), uuid.data(), OX_UUID_LEN) == 0) return &record;
    return nullptr;
  }
  const std::vector<std::string> &records() const { return records_; }
  std::size_t record_size() const { return record_size_; }

 private:
  std::size_t record_size_;
  std::vector<std::string> records_;
};

class RuleModel : public SetModel {
 public:
  RuleModel() : SetModel(sizeof(prule)) {}

  int add(const std::string &record) {
    if (record.find('\0', OX_UUID_LEN) == record.npos) return OX_ERR_PATTERN;
    return SetModel::add(record);
  }
  /* How many rules a path hits. */
  int hits(const std::string &path) {
    int count = 0;
    for (const std::string &record : records()) {
      const std::string text = record.c_str() + OX_UUID_LEN;
      count += plain_.try_emplace(text, text).first->second.covers(path);
    }
    return std::min(count, 32);
  }

 private:
  /* What the texts mean that were asked about so far. */
  std::map<std::string, oracle::PlainRules> plain_;
};

/* One of few identifiers, some of which agree up to a zero byte. */
inline std::string read_uuid(Input &input) {
  const unsigned kind = input.u8();
  std::string uuid(OX_UUID_LEN, static_cast<char>('0' + kind % 8));
  if (kind & 8) uuid[kind / 16] = '\0';
  if (kind & 128) uuid[OX_UUID_LEN - 1] = '!';
  return uuid;
}

/* A record of the given size: an identifier, then text that is filled up with zeros, or with
 * letters. */
inline std::string read_record(Input &input, std::size_t size) {
  std::string record = read_uuid(input);
  const char filler = input.u8() % 16 == 15 ? 'A' : '\0';
  record += input.bytes();
  record.resize(size, filler);
  return record;
}

/* Compares what changes hit with what the rules say, and makes one. */
inline void check_hits(RuleModel &rules, const std::string &path) {
  check_equal(uk_fuzz_hits(path.c_str()), rules.hits(path), "rules hit");
  check_equal(uk_fuzz_change(path.c_str()), 0, "a captured change");
}

}  // namespace fuzz

#endif
