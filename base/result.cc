// SPDX-License-Identifier: GPL-2.0
#include "base/result.h"

#include <system_error>

namespace tarn {

Error system_error(int err, const std::string &what) {
  return {-err, what + ": " + std::generic_category().message(err)};
}

}  // namespace tarn
