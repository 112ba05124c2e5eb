// SPDX-License-Identifier: GPL-2.0
#include "base/version.h"

#include <fmt/format.h>

namespace tarn {

std::string version_line(std::string_view program) {
  return fmt::format("{} {} (commit {}, {})", program, TARN_VERSION, TARN_COMMIT, TARN_BUILD);
}

}  // namespace tarn
