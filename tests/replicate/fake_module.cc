// SPDX-License-Identifier: GPL-2.0
#include "tests/replicate/fake_module.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include <fmt/format.h>

#include "module/os_public/Include/ox_msg.h"

namespace tarn::test {
namespace {

constexpr std::size_t kRuleSize = sizeof(prule);

template <class T>
std::string bytes_of(const T &record) {
  return {reinterpret_cast<const char *>(&record), sizeof(record)};
}

bool same_uuid(const std::string &a, const std::string &b) {
  return std::strncmp(a.data(), b.data(), 16) == 0;
}

/* Adds to a set of records, removes from it; the results of the module. */
int add_record(std::vector<std::string> &set, const std::string &record, std::size_t size) {
  if (record.size() != size) return OX_ERR_SIZE;
  for (const auto &old : set) {
    if (same_uuid(old, record)) return OX_ERR_EXIST;
  }
  set.push_back(record);
  return 0;
}

int delete_record(std::vector<std::string> &set, const std::string &record, std::size_t size) {
  if (record.size() != size) return OX_ERR_REQUEST;
  return std::erase_if(set, [&](const auto &old) { return same_uuid(old, record); }) ? 0
                                                                                     : OX_ERR_NOENT;
}

}  // namespace

std::string escaped(const std::string &path) {
  std::string text;
  for (const unsigned char c : path)
    text +=
        c <= ' ' || c == '\\' ? fmt::format("\\{:03o}", c) : std::string(1, static_cast<char>(c));
  return text;
}

int FakeModule::set_option(int code, const std::string &argument) {
  if (forced_result != 0) return forced_result;
  switch (code) {
    case OX_SO_REP_ADD:
      return add_record(rules, argument, kRuleSize);
    case OX_SO_REP_DEL:
      return delete_record(rules, argument, kRuleSize);
    case OX_SO_REP_FLUSH:
      rules.clear();
      return 0;
    case OX_SO_DIR_ADD:
      return add_record(directories, argument, sizeof(dir));
    case OX_SO_DIR_DEL:
      return delete_record(directories, argument, sizeof(dir));
    case OX_SO_DIR_FLUSH:
      directories.clear();
      return 0;
    case OX_SO_SET_DAEMON:
      daemon_path = argument.c_str();
      return static_cast<int>(argument.size());
  }
  return OX_ERR_REQUEST;
}

int FakeModule::get_option(int code, std::string &buffer, std::size_t room) {
  if (forced_result != 0) return forced_result;
  prule_info info;
  if (buffer.size() != sizeof(info)) return OX_ERR_SIZE;
  std::memcpy(&info, buffer.data(), sizeof(info));
  const std::string wanted = buffer.substr(8);
  const auto found = std::find_if(rules.begin(), rules.end(),
                                  [&](const auto &rule) { return same_uuid(rule, wanted); });
  switch (code) {
    case OX_SO_GET_INFO:
      if (info.op == OX_INFO_COUNT)
        info.rulenum = static_cast<ox_s32_t>(rules.size());
      else if (info.op != OX_INFO_EXIST)
        return OX_ERR_SIZE;
      else if (found != rules.end())
        info.rulenum = 1;
      buffer = bytes_of(info);
      return 0;
    case OX_SO_GET_RULE:
      if (found == rules.end()) return OX_ERR_NOENT;
      buffer = *found;
      return 0;
    case OX_SO_GET_RULES:
      if (std::exchange(count_is_wrong_once, false)) return OX_ERR_COUNT;
      if (info.rulenum != static_cast<int>(rules.size())) return OX_ERR_COUNT;
      buffer.clear();
      for (const auto &rule : rules) buffer += rule;
      return buffer.size() <= room ? 0 : static_cast<int>(buffer.size() - room);
  }
  return OX_ERR_REQUEST;
}

}  // namespace tarn::test
