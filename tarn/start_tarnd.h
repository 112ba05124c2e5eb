/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Starting and ending tarnd, for the programs that mount. Calls block until it serves or has ended.
 *
 * Where systemd runs, root's tarnd in the default run directory is the unit tarnd.service: as the
 * child of a shell or of a mount unit it would end with the session or with that mount.
 */
#ifndef TARN_TARN_START_TARND_H
#define TARN_TARN_START_TARND_H

#include <string>

#include "base/result.h"

namespace tarn {

/* Error code: tarnd could not be started. The text is tarnd's own if it begins with "tarnd:". */
inline constexpr int kNotStarted = -ECHILD;

/* Who ends the tarnd that was started. */
enum class Starter { kCaller, kServiceManager };

/* Starts a tarnd for the run directory and waits until it serves. Error: kNotStarted. */
Result<Starter> start_tarnd(const std::string &run_dir);

/* Does a tarnd hold the lock of the run directory? */
bool tarnd_lives(const std::string &run_dir);

/* Ends the tarnd that answers there and waits until it has released its lock. */
Result<void> stop_tarnd(const std::string &run_dir);

}  // namespace tarn

#endif
