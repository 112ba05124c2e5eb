// SPDX-License-Identifier: GPL-2.0
#include "base/version.h"

namespace tarn {

const char kVersion[] = TARN_VERSION;

}  // namespace tarn
