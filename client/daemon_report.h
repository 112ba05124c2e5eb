/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The daemon's report for other programs, for `tarn status`: the module has no request that tells
 * which rules it has stopped. A file in the run directory, mirrord.json, with the process id of the
 * daemon that wrote it.
 */
#ifndef TARN_CLIENT_DAEMON_REPORT_H
#define TARN_CLIENT_DAEMON_REPORT_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <set>
#include <string>

#include "base/result.h"
#include "client/site.h"
#include "client/uuid.h"

namespace tarn {

struct DaemonReport {
  std::uint64_t problems = 0;
  std::set<Uuid> stopped; /* rules that the module has stopped capturing */

  bool operator==(const DaemonReport &) const = default;
};

/* Of this process, which is the daemon. Replaces the file atomically. */
Result<void> write_daemon_report(const Site &site, const DaemonReport &report);

/* The report of the daemon with this process id; nothing if it writes none. */
Result<std::optional<DaemonReport>> read_daemon_report(const Site &site, pid_t daemon);

}  // namespace tarn

#endif
