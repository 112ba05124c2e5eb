/* SPDX-License-Identifier: GPL-2.0 */
/*
 * For programs that change files on the mount and then read the replica: waits until a running
 * mirrord has applied all changes made before the call.
 */
#ifndef TARN_MIRRORD_CATCH_UP_H
#define TARN_MIRRORD_CATCH_UP_H

#include <chrono>
#include <string>

#include "base/result.h"
#include "mirrord/status.h"

namespace tarn {

/* Errors: -ETIMEDOUT; -ESRCH if the mirrord of the status file has ended; -EPERM if it is another
 * user's. */
Result<CatchUpState> catch_up(const std::string &status_file, std::chrono::seconds patience);

}  // namespace tarn

#endif
