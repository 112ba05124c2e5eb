/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Opening the files of a log. First everything is checked, and errors leave the files as they are;
 * then damaged headers are written again, a torn tail is cut off, and everything is synced.
 *
 * What is behind the last intact entry of the last segment is a torn tail, the trace of an
 * interrupted append. Any other place where entries are not intact, or missing, is damage: it stays
 * as it is, for readers to see.
 */
#ifndef TARN_MIRRORD_LOG_RECOVERY_H
#define TARN_MIRRORD_LOG_RECOVERY_H

#include <deque>
#include <memory>
#include <string>

#include "base/result.h"
#include "base/unique_fd.h"
#include "mirrord/log/log.h"
#include "mirrord/log/segment.h"

namespace tarn {

struct RecoveredLog {
  Uuid epoch;
  Log::Recovery report;
  std::int64_t last_ns = 0;                         /* the latest time of an entry */
  std::deque<std::shared_ptr<LogSegment>> segments; /* the last one has its file open for writing */
};

/* Makes the directory if it is missing, and locks it for this process. */
Result<UniqueFd> open_log_directory(const std::string &name);

/* Makes the first segment if there is none. Errors: see Log::open(). */
Result<RecoveredLog> recover_log(const UniqueFd &directory, const std::string &name);

}  // namespace tarn

#endif
