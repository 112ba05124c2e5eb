// SPDX-License-Identifier: GPL-2.0
#include "tests/oracle/plain_rules.h"

#include <set>

namespace oracle {
namespace {

constexpr char kEnd = '\0';
constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::string_view kSkipped = " ,\r\n";
constexpr std::string_view kSeparators{",\r\n\0", 4};

bool begins_with(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

// The path that an entry stands for.
std::string directory_of(const Entry &entry) {
  // The room for the decoded path is measured one character too small unless the length is a
  // multiple of four.
  if (entry.text.size() % 4 != 0) return "";
  const Decoded decoded = base64_decode(entry.text);
  if (!decoded.ok) return "";
  return decoded.bytes.substr(0, decoded.bytes.find(kEnd));
}

}  // namespace

PlainRules::PlainRules(std::string_view text) {
  const std::vector<Entry> entries = entries_of(text.substr(0, text.find(kEnd)));
  for (const Entry &entry : entries)
    if (!entry.excluded) include(directory_of(entry));
  for (const Entry &entry : entries)
    if (entry.excluded) exclude(directory_of(entry));
}

void PlainRules::enter(std::string_view directory, bool verdict) {
  directories_.emplace_back(directory);
  std::string base(directory);
  const bool slash_given = !base.empty() && base.back() == '/';
  if (slash_given) base.pop_back();
  // The name that is not the listed text itself goes first.
  enter_name(base + (slash_given ? kEnd : '/'), verdict);
  enter_name(base + (slash_given ? '/' : kEnd), verdict);
}

void PlainRules::enter_name(const std::string &name, bool verdict) {
  const auto first = names_.upper_bound(name);
  auto last = first;
  while (last != names_.end() && begins_with(last->first, name)) ++last;
  const bool anything_below = first != last;
  const bool at_joint =
      names_.contains(name) || part_at(name) || part_at(name.substr(0, name.size() - 1));
  if (anything_below && !at_joint) {
    names_[name + kEnd] = verdict;
    return;
  }
  names_.erase(first, last);
  names_[name] = verdict;
}

bool PlainRules::part_at(const std::string &place) const {
  std::set<char> next;
  for (auto at = names_.upper_bound(place); at != names_.end() && begins_with(at->first, place);
       ++at)
    next.insert(at->first[place.size()]);
  return next.size() > 1;
}

bool PlainRules::covers(std::string_view path) const {
  const std::string whole = std::string(path) + kEnd;
  for (std::string_view name = whole; !name.empty(); name.remove_suffix(1))
    if (const auto found = names_.find(name); found != names_.end()) return found->second;
  return false;
}

std::vector<Entry> entries_of(std::string_view text) {
  std::vector<Entry> entries;
  while (true) {
    const std::size_t start = text.find_first_not_of(kSkipped);
    if (start == text.npos) return entries;
    text.remove_prefix(start);
    const std::size_t length = std::min(text.find_first_of(kSeparators), text.size());
    std::string entry(text.substr(0, length));
    const bool excluded = entry.front() == '!';
    if (excluded) entry.erase(0, 1);
    entries.push_back({entry, excluded});
    text.remove_prefix(length);
  }
}

std::string base64_encode(std::string_view bytes) {
  std::string bits;
  for (const unsigned char byte : bytes)
    for (int bit = 7; bit >= 0; --bit) bits += byte >> bit & 1 ? '1' : '0';
  while (bits.size() % 6 != 0) bits += '0';
  std::string out;
  for (std::size_t i = 0; i < bits.size(); i += 6)
    out += kAlphabet[std::stoul(bits.substr(i, 6), nullptr, 2)];
  while (out.size() % 4 != 0) out += '=';
  return out;
}

Decoded base64_decode(std::string_view text) {
  std::vector<bool> bits;
  std::size_t padding = 0;
  for (char c : text) {
    c &= 0x7f;
    std::size_t value = kAlphabet.find(c);
    if (c == '=') {
      ++padding;
      value = 0;
    } else if (value == kAlphabet.npos) {
      continue;
    }
    for (int bit = 5; bit >= 0; --bit) bits.push_back(value >> bit & 1);
  }
  if (bits.size() % 8 != 0) return {false, ""};
  std::string bytes(bits.size() / 8, kEnd);
  for (std::size_t i = 0; i < bits.size(); ++i)
    if (bits[i]) bytes[i / 8] = static_cast<char>(bytes[i / 8] | 0x80 >> i % 8);
  if (padding > bytes.size() || padding > 2) return {false, ""};
  bytes.resize(bytes.size() - padding);
  return {true, bytes};
}

}  // namespace oracle
