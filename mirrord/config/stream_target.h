/* SPDX-License-Identifier: GPL-2.0 */
/* The tables of the configuration that say how a stream is reached (kind = "nats"). */
#ifndef TARN_MIRRORD_CONFIG_STREAM_TARGET_H
#define TARN_MIRRORD_CONFIG_STREAM_TARGET_H

#include "mirrord/config/config.h"
#include "mirrord/config/section.h"

namespace tarn {

/* The keys of the servers and of the stream, for whoever sends to it or takes from it. */
StreamConfig read_stream(Section &section);

StreamTargetConfig read_stream_target(Section &section, NameLines &names);

}  // namespace tarn

#endif
