/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The daemon channel: each connection is one netlink socket of the peer, and each packet one
 * message.
 *
 * Two pumps move the messages. The one to the peer blocks while the peer does not read, so that the
 * socket's receive queue fills and whoever sends waits, as long as the kernel says. A signal that
 * the kernel sends to the peer's process goes there.
 */
#ifndef TARND_DAEMON_CHANNEL_H
#define TARND_DAEMON_CHANNEL_H

namespace tarnd {

/* Until the peer hangs up or the connection is shut down. Any number of connections at once. */
void serve_daemon_channel(int connection);

}  // namespace tarnd

#endif
