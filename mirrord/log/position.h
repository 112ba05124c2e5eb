/* SPDX-License-Identifier: GPL-2.0 */
/* The number of an entry of a log: 1, 2, 3, ... without holes; 0 is before the first. */
#ifndef TARN_MIRRORD_LOG_POSITION_H
#define TARN_MIRRORD_LOG_POSITION_H

#include <cstdint>

namespace tarn {

using LogPosition = std::uint64_t;

}  // namespace tarn

#endif
