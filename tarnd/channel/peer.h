/* SPDX-License-Identifier: GPL-2.0 */
/* The identity and privilege of a local socket's peer. */
#ifndef TARND_CHANNEL_PEER_H
#define TARND_CHANNEL_PEER_H

#include "base/result.h"
#include "tarnd/process/task.h"

namespace tarnd {

/* From SO_PEERCRED, at the time of the connect. Root and the user that runs tarnd have every
 * capability, others none. */
tarn::Result<Identity> peer_identity(int socket);

inline bool is_privileged(const Identity &peer) {
  return peer.capabilities == kAllCapabilities;
}

}  // namespace tarnd

#endif
