/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The daemon's report for other programs. The module has no request that tells which rules it has
 * stopped, so the daemon writes the stop messages that it receives to a file in the run directory,
 * in the form that mirrord(8) describes.
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

std::string daemon_report_file(const Site &site);

struct DaemonReport {
  std::uint64_t problems = 0;
  std::set<Uuid> stopped; /* rules that the module has stopped capturing */
};

/* The report of the daemon with this process id; nothing if it writes none. */
Result<std::optional<DaemonReport>> read_daemon_report(const Site &site, pid_t daemon);

}  // namespace tarn

#endif
