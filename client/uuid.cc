// SPDX-License-Identifier: GPL-2.0
#include "client/uuid.h"

#include <fcntl.h>

#include <cerrno>

#include "base/unique_fd.h"

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

Result<Uuid> make_uuid() {
  constexpr char kSource[] = "/dev/urandom";
  const UniqueFd source(open(kSource, O_RDONLY | O_CLOEXEC));
  if (!source) return system_error(errno, std::string("cannot make up a UUID: ") + kSource);
  Uuid uuid;
  for (std::size_t at = 0; at < uuid.bytes.size();) {
    const ssize_t got = read(source.get(), &uuid.bytes[at], 1);
    if (got < 0 && errno == EINTR) continue;
    if (got != 1)
      return system_error(got < 0 ? errno : EIO, std::string("cannot make up a UUID: ") + kSource);
    at += uuid.bytes[at] != 0;
  }
  // The bits of a random UUID: version 4, variant 10. Neither byte can become zero.
  uuid.bytes[6] = static_cast<std::uint8_t>((uuid.bytes[6] & 0x0f) | 0x40);
  uuid.bytes[8] = static_cast<std::uint8_t>((uuid.bytes[8] & 0x3f) | 0x80);
  return uuid;
}

}  // namespace tarn
