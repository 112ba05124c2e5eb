/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The daemon channel: each connection is one netlink socket of the peer, and each packet one
 * message, or several where the peer's hello asks for it (ox_ctl.h).
 *
 * Two pumps move the messages. The one to the peer passes on what waits, then rests for half a
 * millisecond: a message on its own goes at once, and of many that come at a time many go together.
 * It blocks while the peer does not read, so that the socket's receive queue fills and whoever
 * sends waits, as long as the kernel says. A signal that the kernel sends to the peer's process
 * goes there.
 */
#ifndef TARND_CHANNEL_DAEMON_CHANNEL_H
#define TARND_CHANNEL_DAEMON_CHANNEL_H

#include "base/result.h"
#include "tarnd/process/task.h"

namespace tarnd {

/* Until the peer hangs up or the connection is shut down; when that is for reading only, the peer
 * still gets what was sent to it before. Any number of connections at once. Error: that of making
 * the peer's netlink socket. */
tarn::Result<void> serve_daemon_channel(int connection, const Identity &peer);

}  // namespace tarnd

#endif
