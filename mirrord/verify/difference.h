/* SPDX-License-Identifier: GPL-2.0 */
/* One way in which a target differs from its source. */
#ifndef TARN_MIRRORD_VERIFY_DIFFERENCE_H
#define TARN_MIRRORD_VERIFY_DIFFERENCE_H

#include <string>

namespace tarn {

struct Difference {
  std::string path, kind, detail;
};

}  // namespace tarn

#endif
