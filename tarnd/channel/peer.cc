// SPDX-License-Identifier: GPL-2.0
#include "tarnd/channel/peer.h"

#include <unistd.h>

#include "base/run_dir.h"

namespace tarnd {

tarn::Result<Identity> peer_identity(int socket) {
  const auto credentials = tarn::peer_credentials(socket);
  if (!credentials) return credentials.error();
  Identity peer;
  peer.pid = credentials->pid;
  peer.uid = credentials->uid;
  peer.gid = credentials->gid;
  peer.capabilities = peer.uid == 0 || peer.uid == geteuid() ? kAllCapabilities : 0;
  return peer;
}

}  // namespace tarnd
