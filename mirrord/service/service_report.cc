// SPDX-License-Identifier: GPL-2.0
#include "mirrord/service/service_report.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "base/version.h"

namespace tarn {

using std::chrono::steady_clock;

ServiceReport process_report(steady_clock::time_point started) {
  ServiceReport report;
  report.pid = getpid();
  report.version = version_line("mirrord").substr(std::strlen("mirrord "));
  report.uptime_seconds = std::chrono::duration<double>(steady_clock::now() - started).count();
  return report;
}

SourceReport log_report(const Intake &intake, std::uint64_t log_limit) {
  const Log &log = intake.log();
  Intake::Counts counts = intake.counts();
  SourceReport report;
  report.rule = to_string(intake.rule());
  report.captured = counts.captured;
  report.logged = counts.logged;
  report.gaps = counts.gaps;
  report.last_gap = std::move(counts.last_gap);
  report.log_bytes = log.bytes();
  report.log_limit = log_limit;
  report.log_first = log.first();
  report.log_end = log.end();
  report.log_durable = log.durable_end();
  LogReader reader(log, log.first());
  if (const auto entry = reader.next(); entry && *entry)
    report.log_age_seconds =
        std::max(0.0, static_cast<double>(log.now_ns() - (*entry)->time_ns) / 1e9);
  return report;
}

}  // namespace tarn
