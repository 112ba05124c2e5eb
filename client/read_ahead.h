/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A link that is always being read: a thread of its own takes what the module sends as soon as it
 * comes and keeps it until it is asked for. The module waits a second at most for a daemon that
 * does not read, then the record is lost; a daemon that works on what it has got, on a disk that is
 * busy, may well need longer.
 *
 * When `limit` bytes are kept it reads no further until some have been taken, and the module waits
 * as it would for any daemon. Senders' threads may differ from the receiver's; one thread receives.
 */
#ifndef TARN_CLIENT_READ_AHEAD_H
#define TARN_CLIENT_READ_AHEAD_H

#include <cstddef>
#include <memory>

#include "client/message_link.h"
#include "base/result.h"

namespace tarn {

inline constexpr std::size_t kReadAheadBytes = 64 << 20;

/* Errors: those of making a pipe. */
Result<std::unique_ptr<MessageLink>> read_ahead(std::unique_ptr<MessageLink> link,
                                                std::size_t limit = kReadAheadBytes);

}  // namespace tarn

#endif
