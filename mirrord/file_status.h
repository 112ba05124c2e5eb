/* SPDX-License-Identifier: GPL-2.0 */
/* What stat() says of an object, as records say it. */
#ifndef TARN_MIRRORD_FILE_STATUS_H
#define TARN_MIRRORD_FILE_STATUS_H

#include <sys/stat.h>

#include <chrono>
#include <cstdint>

namespace tarn {

inline constexpr std::uint32_t kModeBits = 07777;

/* Since the epoch, rounded towards the past, as records count. */
inline std::int64_t microseconds(const timespec &time) {
  return std::int64_t{time.tv_sec} * 1'000'000 + time.tv_nsec / 1000;
}

/* A change time is as coarse as its file system's, and is taken before the record's: by so many
 * microseconds it may be earlier than that. */
inline constexpr std::int64_t kCoarse = 2'000'000;

/* The clock that files and records are stamped with, in microseconds since the epoch. */
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
