/* SPDX-License-Identifier: GPL-2.0 */
/* Reports for people: what the commands status and targets print. */
#ifndef TARN_MIRRORD_CONTROL_REPORT_TEXT_H
#define TARN_MIRRORD_CONTROL_REPORT_TEXT_H

#include <string>

#include "mirrord/control/control.h"

namespace tarn {

/* A message of the service on one line: as it is, or escaped if it has control characters. */
std::string one_line(const std::string &message);

/* The service, its sources, a table of the targets of each, and the problems. */
std::string status_text(const ServiceReport &report);

/* A line for each target: its name, state and both directories. */
std::string targets_text(const ServiceReport &report);

}  // namespace tarn

#endif
