/* SPDX-License-Identifier: GPL-2.0 */
/* File status: comparisons, and times in the units of records. */
#ifndef TARN_MIRRORD_FILE_STATUS_H
#define TARN_MIRRORD_FILE_STATUS_H

#include <sys/stat.h>

#include <chrono>
#include <cstdint>

namespace tarn {

inline constexpr std::uint32_t kModeBits = 07777;

/* Since the epoch, rounded down, as in records. */
inline std::int64_t microseconds(const timespec &time) {
  return std::int64_t{time.tv_sec} * 1'000'000 + time.tv_nsec / 1000;
}

/* The time of a record. tv_nsec counts forward, before the epoch too. */
inline timespec from_microseconds(std::int64_t us) {
  const std::int64_t rest = us % 1'000'000, fraction = rest < 0 ? rest + 1'000'000 : rest;
  return {static_cast<time_t>(us / 1'000'000 - (rest < 0)), static_cast<long>(fraction * 1000)};
}

/* The granularity of change times, in microseconds: some file systems store whole or even seconds.
 * A change time may be this much earlier than the time of its record, and two changes within this
 * time may have the same one. */
inline constexpr std::int64_t kTimestampSlackUs = 2'000'000;

/* The clock of file and record times, in microseconds since the epoch. */
inline std::int64_t now_us() {
  using namespace std::chrono;
  return duration_cast<std::chrono::microseconds>(system_clock::now().time_since_epoch()).count();
}

inline bool same_time(const timespec &a, const timespec &b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

inline bool same_object(const struct stat &a, const struct stat &b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

}  // namespace tarn

#endif
