// SPDX-License-Identifier: GPL-2.0
#include "base/text.h"

#include <algorithm>
#include <ctime>

#include <fmt/format.h>

namespace tarn {
namespace {

/* The length of the first UTF-8 character, or 0 if the first byte begins none. */
std::size_t utf8_character(std::string_view bytes) {
  const auto at = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
  const unsigned first = at(0);
  if (first < 0x80) return 1;
  const std::size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4 || bytes.size() < length) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((at(i) & 0xc0) != 0x80) return 0;
  }
  // Overlong forms, surrogates, and beyond U+10FFFF.
  if (first == 0xe0 && at(1) < 0xa0) return 0;
  if (first == 0xed && at(1) > 0x9f) return 0;
  if (first == 0xf0 && at(1) < 0x90) return 0;
  if (first == 0xf4 && at(1) > 0x8f) return 0;
  return length;
}

std::string quoted_character(std::string_view character) {
  switch (character[0]) {
    case '\n':
      return "\\n";
    case '\t':
      return "\\t";
    case '"':
      return "\\\"";
    case '\\':
      return "\\\\";
    default:
      return std::string(character);
  }
}

std::string octal(char byte) {
  return fmt::format("\\{:03o}", static_cast<unsigned char>(byte));
}

bool control(std::string_view character) {
  const auto first = static_cast<unsigned char>(character[0]);
  if (character.size() == 2)
    return first == 0xc2 && static_cast<unsigned char>(character[1]) < 0xa0;
  return character.size() == 1 && (first < 0x20 || first == 0x7f);
}

}  // namespace

bool valid_utf8(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t length = utf8_character(bytes);
    if (length == 0) return false;
    bytes.remove_prefix(length);
  }
  return true;
}

std::string printable(std::string_view bytes) {
  std::string text;
  bool plain = !bytes.empty();
  while (!bytes.empty()) {
    const std::size_t length = utf8_character(bytes);
    const std::string_view character = bytes.substr(0, length ? length : 1);
    bytes.remove_prefix(character.size());
    const std::string shown = quoted_character(character);
    if (length != 0 && shown != character) {
      plain = false;
      text += shown;
    } else if (length == 0 || control(character)) {
      plain = false;
      for (const unsigned char byte : character) text += fmt::format("\\x{:02x}", byte);
    } else {
      plain = plain && character != " ";
      text += character;
    }
  }
  return plain ? text : '"' + text + '"';
}

std::string escape_octal(std::string_view text, std::string_view bytes) {
  std::string escaped;
  for (const char c : text) escaped += bytes.find(c) != bytes.npos ? octal(c) : std::string(1, c);
  return escaped;
}

std::string escape_controls(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\\')
      escaped += "\\\\";
    else if (byte < 0x20 || byte == 0x7f)
      escaped += octal(c);
    else
      escaped += c;
  }
  return escaped;
}

std::string unescape_octal(std::string_view text) {
  const auto digit = [&](std::size_t i) { return text[i] >= '0' && text[i] <= '7'; };
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size() && digit(i + 1) && digit(i + 2) && digit(i + 3)) {
      bytes += static_cast<char>((text[i + 1] - '0') << 6 | (text[i + 2] - '0') << 3 |
                                 (text[i + 3] - '0'));
      i += 3;
    } else {
      bytes += text[i];
    }
  }
  return bytes;
}

std::string_view take_until(std::string_view &text, char end) {
  const std::string_view taken = text.substr(0, text.find(end));
  text.remove_prefix(std::min(text.size(), taken.size() + 1));
  return taken;
}

std::string utc_time(std::int64_t us) {
  // Rounded down: the fraction counts forward before the epoch too.
  const std::int64_t rest = us % 1'000'000, fraction = rest < 0 ? rest + 1'000'000 : rest;
  const auto seconds = static_cast<std::time_t>(us / 1'000'000 - (rest < 0));
  std::tm tm{};
  if (gmtime_r(&seconds, &tm) == nullptr) return fmt::format("{} us", us);
  return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}.{:06}", tm.tm_year + 1900LL,
                     tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, fraction);
}

}  // namespace tarn
