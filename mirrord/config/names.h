/* SPDX-License-Identifier: GPL-2.0 */
/* Names of sources and targets: parts of file names, command lines and labels of metrics. */
#ifndef TARN_MIRRORD_CONFIG_NAMES_H
#define TARN_MIRRORD_CONFIG_NAMES_H

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace tarn {

inline constexpr std::size_t kConfigNameMax = 64;
/* For messages: what good_config_name() accepts. */
inline constexpr char kConfigNameForm[] =
    "at most 64 of a-z, 0-9, '.', '_' and '-', the first a letter or a digit";

inline bool good_config_name(std::string_view name) {
  const auto plain = [](char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'); };
  const auto good = [plain](char c) { return plain(c) || c == '.' || c == '_' || c == '-'; };
  return !name.empty() && name.size() <= kConfigNameMax && plain(name[0]) &&
         std::all_of(name.begin(), name.end(), good);
}

}  // namespace tarn

#endif
