/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Tells whether the wall clock was set back, by comparing it with the time since the machine was
 * started. Times of records and of files are those of the wall clock: after it was set back, later
 * changes may have earlier times. Plain values; any thread.
 */
#ifndef TARN_MIRRORD_SERVICE_WALL_CLOCK_H
#define TARN_MIRRORD_SERVICE_WALL_CLOCK_H

#include <cstdint>
#include <string>

namespace tarn {

struct ClockReading {
  std::int64_t wall = 0;  /* microseconds since the epoch */
  std::int64_t ahead = 0; /* of the time since the machine was started, microseconds */
  std::string boot;       /* the machine's run; "": unknown */
};

ClockReading read_clock();

/* Less than the slack that times of files are given anyway is none. Where the machine was started
 * in between, only a clock that is behind the first reading is noticed. */
bool was_set_back(const ClockReading &from, const ClockReading &to);

}  // namespace tarn

#endif
