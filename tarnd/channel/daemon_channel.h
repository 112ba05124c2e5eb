/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The daemon channel: each connection is one netlink socket of the peer. A packet is one message,
 * or several if the peer's hello asks for batches (ox_ctl.h).
 *
 * Two pumps move the messages. The one to the peer sends a batch, then pauses for half a
 * millisecond: a single message goes at once, and messages of a burst go together. It blocks while
 * the peer does not read. Then the netlink socket's receive queue fills, and senders wait as long
 * as the kernel allows. The module's signals to the peer's process are delivered to it.
 */
#ifndef TARND_CHANNEL_DAEMON_CHANNEL_H
#define TARND_CHANNEL_DAEMON_CHANNEL_H

#include "base/result.h"
#include "tarnd/process/task.h"

namespace tarnd {

/* Serves until the peer hangs up or the connection is shut down. After a shutdown for reading the
 * peer still gets the messages sent before. Any number of connections at a time. Error: that of
 * making the peer's netlink socket. */
tarn::Result<void> serve_daemon_channel(int connection, const Identity &peer);

}  // namespace tarnd

#endif
