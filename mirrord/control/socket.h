/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Both ends of the control socket's path. Its directory belongs to root or the user that listens
 * there and can be written by nobody else, so that nobody can put another socket in its place.
 * Beside the socket lies its lock, SOCKET.lock, which the listening process holds while it lives.
 */
#ifndef TARN_MIRRORD_CONTROL_SOCKET_H
#define TARN_MIRRORD_CONTROL_SOCKET_H

#include <sys/stat.h>

#include <string>

#include "base/result.h"
#include "base/unique_fd.h"

namespace tarn {

/* A listening socket of mode 0600. The socket's name goes with the object. */
class ListeningSocket {
 public:
  /* Errors: as ControlServer::open(). */
  static Result<ListeningSocket> open(const std::string &path);
  ListeningSocket(ListeningSocket &&) = default;
  ListeningSocket &operator=(ListeningSocket &&) = delete;
  ~ListeningSocket();

  /* Non-blocking. */
  int fd() const { return socket_.get(); }

 private:
  ListeningSocket() = default;

  UniqueFd directory_, lock_, socket_;
  std::string name_;
  struct stat made_ {}; /* the socket's own file */
};

/*
 * The error's text says how to start a service or as whom to ask. Errors: -ENOENT and
 * -ECONNREFUSED: no service is there; -EACCES: only for root and the service's user; -EPERM:
 * another user listens there.
 */
Result<UniqueFd> connect_control(const std::string &path);

}  // namespace tarn

#endif
