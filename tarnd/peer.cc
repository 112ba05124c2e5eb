// SPDX-License-Identifier: GPL-2.0
#include "tarnd/peer.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace tarnd {

Identity peer_identity(int socket) {
  ucred cred{};
  socklen_t len = sizeof(cred);
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0)
    throw std::runtime_error(std::string("SO_PEERCRED: ") + std::strerror(errno));
  Identity peer;
  peer.pid = cred.pid;
  peer.uid = cred.uid;
  peer.gid = cred.gid;
  peer.capabilities = cred.uid == 0 || cred.uid == geteuid() ? kAllCapabilities : 0;
  return peer;
}

}  // namespace tarnd
