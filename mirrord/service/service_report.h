/* SPDX-License-Identifier: GPL-2.0 */
/* What each kind of service reports of itself and of a log. Any thread. */
#ifndef TARN_MIRRORD_SERVICE_SERVICE_REPORT_H
#define TARN_MIRRORD_SERVICE_SERVICE_REPORT_H

#include <chrono>
#include <cstdint>

#include "mirrord/control/control.h"
#include "mirrord/service/intake.h"

namespace tarn {

/* Of this process, without its sources. */
ServiceReport process_report(std::chrono::steady_clock::time_point started);

/* Of the log and what came into it; without name, directory and targets. */
SourceReport log_report(const Intake &intake, std::uint64_t log_limit);

}  // namespace tarn

#endif
