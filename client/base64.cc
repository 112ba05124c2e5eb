// SPDX-License-Identifier: GPL-2.0
#include "client/base64.h"

#include <algorithm>
#include <cstdint>

namespace tarn {
namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::string base64_encode(std::string_view bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (; !bytes.empty(); bytes.remove_prefix(std::min<std::size_t>(3, bytes.size()))) {
    std::uint32_t group = 0;
    for (std::size_t i = 0; i < 3; ++i)
      group = group << 8 | (i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0);
    for (std::size_t i = 0; i < 4; ++i)
      text += i <= bytes.size() ? kAlphabet[group >> (18 - 6 * i) & 63] : '=';
  }
  return text;
}

std::optional<std::string> base64_decode(std::string_view text) {
  const std::size_t end = text.find_last_not_of('=') + 1;
  if (text.size() % 4 != 0 || text.size() - end > 2) return std::nullopt;
  std::string bytes;
  bytes.reserve(text.size() / 4 * 3);
  std::uint32_t bits = 0;
  for (std::size_t i = 0; i < end; ++i) {
    const std::size_t digit = kAlphabet.find(text[i]);
    if (digit == std::string_view::npos) return std::nullopt;
    bits = bits << 6 | static_cast<std::uint32_t>(digit);
    // Each character but the first of four completes a byte.
    if (i % 4 != 0) bytes += static_cast<char>(bits >> (6 - 2 * (i % 4)) & 0xff);
  }
  return bytes;
}

}  // namespace tarn
