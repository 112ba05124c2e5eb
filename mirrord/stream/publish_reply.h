/* SPDX-License-Identifier: GPL-2.0 */
/* What the servers say to a message that was published to a stream. */
#ifndef TARN_MIRRORD_STREAM_PUBLISH_REPLY_H
#define TARN_MIRRORD_STREAM_PUBLISH_REPLY_H

#include <cstdint>
#include <string_view>

#include "base/result.h"

namespace tarn {

/* The number that the message got. Errors: -EAGAIN: it is behind another message than it says;
 * -ENOSPC: the stream is full; -EIO: anything else. */
Result<std::uint64_t> parse_publish_reply(std::string_view reply);

}  // namespace tarn

#endif
