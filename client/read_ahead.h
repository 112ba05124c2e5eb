/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A link with a receive queue. A thread of its own reads what the module sends as soon as it
 * arrives. Without it records would be lost: the module waits at most a second for a daemon that
 * does not read, and applying a record to a busy disk can take longer.
 *
 * The thread stops reading while `limit` bytes are queued, and the module waits. Any thread may
 * send; one thread receives.
 */
#ifndef TARN_CLIENT_READ_AHEAD_H
#define TARN_CLIENT_READ_AHEAD_H

#include <cstddef>
#include <memory>

#include "base/result.h"
#include "client/message_link.h"

namespace tarn {

inline constexpr std::size_t kReadAheadBytes = 64 << 20;

/* Errors: those of making a pipe. */
Result<std::unique_ptr<MessageLink>> read_ahead(std::unique_ptr<MessageLink> link,
                                                std::size_t limit = kReadAheadBytes);

}  // namespace tarn

#endif
