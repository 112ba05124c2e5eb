// SPDX-License-Identifier: GPL-2.0
#include "client/uuid.h"

#include <random>

namespace tarn {
namespace {

constexpr bool dash_before(std::size_t byte) {
  return byte == 4 || byte == 6 || byte == 8 || byte == 10;
}

std::optional<unsigned> hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return std::nullopt;
}

}  // namespace

std::string to_string(const Uuid &uuid) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(36);
  for (std::size_t i = 0; i < uuid.bytes.size(); ++i) {
    if (dash_before(i)) text += '-';
    text += kDigits[uuid.bytes[i] >> 4];
    text += kDigits[uuid.bytes[i] & 15];
  }
  return text;
}

std::optional<Uuid> parse_uuid(std::string_view text) {
  Uuid uuid;
  if (text.size() != 36) return std::nullopt;
  std::size_t at = 0;
  for (std::size_t i = 0; i < uuid.bytes.size(); ++i) {
    if (dash_before(i) && text[at++] != '-') return std::nullopt;
    const auto high = hex_digit(text[at]), low = hex_digit(text[at + 1]);
    if (!high || !low) return std::nullopt;
    uuid.bytes[i] = static_cast<std::uint8_t>(*high << 4 | *low);
    at += 2;
  }
  return uuid;
}

Uuid make_uuid() {
  std::random_device source;
  std::uniform_int_distribution<unsigned> byte(1, 255);
  Uuid uuid;
  for (auto &b : uuid.bytes) b = static_cast<std::uint8_t>(byte(source));
  // The marks of a random UUID: version 4, variant 10. Neither byte can become zero by them.
  uuid.bytes[6] = static_cast<std::uint8_t>((uuid.bytes[6] & 0x0f) | 0x40);
  uuid.bytes[8] = static_cast<std::uint8_t>((uuid.bytes[8] & 0x3f) | 0x80);
  return uuid;
}

}  // namespace tarn
