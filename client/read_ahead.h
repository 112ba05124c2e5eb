/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A link with a receive queue that its own thread fills. Without it records would be lost: the
 * module waits at most a second for a daemon that does not read, and applying a record on a busy
 * disk can take longer.
 *
 * The thread stops reading while `limit` bytes are queued; then the module waits. Any thread may
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

/* Errors: those of make_pipe(). */
Result<std::unique_ptr<MessageLink>> read_ahead(std::unique_ptr<MessageLink> link,
                                                std::size_t limit = kReadAheadBytes);

}  // namespace tarn

#endif
