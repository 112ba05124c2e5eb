// SPDX-License-Identifier: GPL-2.0
#include "mirrord/service/wall_clock.h"

#include <time.h>

#include <fstream>

#include "mirrord/file_status.h"

namespace tarn {
namespace {

constexpr std::int64_t kSlackUs = kTimestampSlackUs / 2;

std::string boot_id() {
  std::ifstream file("/proc/sys/kernel/random/boot_id");
  std::string id;
  file >> id;
  return id;
}

}  // namespace

ClockReading read_clock() {
  static const std::string boot = boot_id();
  timespec since_boot{};
  // Kernels before 2.6.39 have only the one that stands still while the machine sleeps.
  if (clock_gettime(CLOCK_BOOTTIME, &since_boot) != 0) clock_gettime(CLOCK_MONOTONIC, &since_boot);
  const std::int64_t wall = now_us();
  return {wall, wall - microseconds(since_boot), boot};
}

bool was_set_back(const ClockReading &from, const ClockReading &to) {
  if (!from.boot.empty() && from.boot == to.boot) return to.ahead < from.ahead - kSlackUs;
  return to.wall < from.wall;
}

}  // namespace tarn
