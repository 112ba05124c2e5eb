// SPDX-License-Identifier: GPL-2.0
#include "client/base64.h"

#include <algorithm>

#include <openssl/evp.h>

namespace tarn {

std::string base64_encode(std::string_view bytes) {
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');  // OpenSSL adds a NUL
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text.data()),
                                     reinterpret_cast<const unsigned char *>(bytes.data()),
                                     static_cast<int>(bytes.size()));
  text.resize(static_cast<std::size_t>(length));
  return text;
}

std::optional<std::string> base64_decode(std::string_view text) {
  // OpenSSL skips blanks round the text and takes '=' anywhere; here each character has to count.
  const std::size_t end = text.find_last_not_of('=') + 1;
  const std::size_t padding = text.size() - end;
  const auto in_alphabet = [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/';
  };
  if (text.size() % 4 != 0 || padding > 2 ||
      !std::all_of(text.begin(), text.begin() + end, in_alphabet))
    return std::nullopt;
  std::string bytes(text.size() / 4 * 3, '\0');
  const int length = EVP_DecodeBlock(reinterpret_cast<unsigned char *>(bytes.data()),
                                     reinterpret_cast<const unsigned char *>(text.data()),
                                     static_cast<int>(text.size()));
  if (length < 0) return std::nullopt;
  bytes.resize(static_cast<std::size_t>(length) - padding);
  return bytes;
}

}  // namespace tarn
