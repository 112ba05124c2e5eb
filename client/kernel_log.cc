// SPDX-License-Identifier: GPL-2.0
#include "client/kernel_log.h"

#include <algorithm>
#include <cctype>
#include <charconv>

#include "base/text.h"

namespace tarn {
namespace {

constexpr unsigned kDefaultLevel = 4;
constexpr unsigned kLevels = 8; /* higher bits are the facility */

/* Length of the "<LEVEL>" that a line begins with, or 0. */
std::size_t head_length(std::string_view line, unsigned *level) {
  if (line.empty() || line[0] != '<') return 0;
  const auto [end, error] = std::from_chars(line.data() + 1, line.data() + line.size(), *level);
  if (error != std::errc{} || end == line.data() + line.size() || *end != '>') return 0;
  return static_cast<std::size_t>(end - line.data()) + 1;
}

std::string_view whole_lines(std::string_view buffer) {
  buffer = buffer.substr(0, buffer.rfind('\n') + 1);
  unsigned level;
  if (!buffer.empty() && head_length(buffer, &level) == 0)
    buffer.remove_prefix(buffer.find('\n') + 1);
  return buffer;
}

std::uint64_t count_lines(std::string_view text) {
  return static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n'));
}

LogLine read_line(std::string_view line, std::uint64_t number) {
  unsigned level = kDefaultLevel;
  line.remove_prefix(head_length(line, &level));
  return {number, std::nullopt, level % kLevels, std::string(line)};
}

}  // namespace

void KernelLog::update(std::string_view buffer) {
  const std::string_view now = whole_lines(buffer);
  // The surviving old lines are the end of the old text and the beginning of the new one.
  std::string_view left = text_;
  std::uint64_t gone = 0;
  while (!left.empty() && !now.starts_with(left)) {
    take_until(left, '\n');
    ++gone;
  }
  first_ = left.empty() && !text_.empty() ? behind_ + 1 : first_ + gone;
  behind_ = first_ + count_lines(now);
  text_ = now;
}

LogPart KernelLog::lines(std::uint64_t first) const {
  LogPart part{{}, behind_};
  std::uint64_t number = first_;
  for (std::string_view left = text_; !left.empty(); ++number) {
    const std::string_view line = take_until(left, '\n');
    if (number >= first) part.lines.push_back(read_line(line, number));
  }
  return part;
}

}  // namespace tarn
