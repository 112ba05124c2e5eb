/* SPDX-License-Identifier: GPL-2.0 */
/* The 16-byte id of a rule or of a replicated directory, and its text form. */
#ifndef TARN_CLIENT_UUID_H
#define TARN_CLIENT_UUID_H

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/result.h"

namespace tarn {

struct Uuid {
  std::array<std::uint8_t, 16> bytes{};
  auto operator<=>(const Uuid &) const = default;
};

/* 36 characters, 8-4-4-4-12, upper case, as in the module's log. */
std::string to_string(const Uuid &uuid);

/* Reads that form, in either case. */
std::optional<Uuid> parse_uuid(std::string_view text);

/* Makes a random UUID without zero bytes, because the module compares only up to the first one.
 * Errors: those of reading /dev/urandom. */
Result<Uuid> make_uuid();

}  // namespace tarn

#endif
