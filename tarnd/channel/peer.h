/* SPDX-License-Identifier: GPL-2.0 */
/* Who is at the other end of a local socket, and what that one may do. */
#ifndef TARND_CHANNEL_PEER_H
#define TARND_CHANNEL_PEER_H

#include "base/result.h"
#include "tarnd/process/task.h"

namespace tarnd {

/*
 * The peer as SO_PEERCRED knows it from its connect: a privileged one (root, or the user that runs
 * tarnd) has every capability, others have none.
 */
tarn::Result<Identity> peer_identity(int socket);

inline bool is_privileged(const Identity &peer) {
  return peer.capabilities == kAllCapabilities;
}

}  // namespace tarnd

#endif
