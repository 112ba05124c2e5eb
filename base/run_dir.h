/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The run directory of a tarnd, its sockets and their peers. The sockets are SOCK_SEQPACKET, and
 * their paths may be longer than a socket address holds.
 */
#ifndef TARN_BASE_RUN_DIR_H
#define TARN_BASE_RUN_DIR_H

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <string>

#include "base/result.h"
#include "base/unique_fd.h"

namespace tarn {

/* $TARN_RUN_DIR if set; else /run/tarn for root; else $XDG_RUNTIME_DIR/tarn; else /tmp/tarn-<uid>.
 */
std::string run_directory();

/* The lock file in the run directory, which tarnd holds locked (flock) all the time that it
 * serves. */
inline constexpr char kTarndLock[] = "lock";

/* The address of the socket `name` in an open directory (O_PATH suffices), however long the
 * directory's path is. To be used while the directory is open. Error: -ENAMETOOLONG. */
Result<sockaddr_un> socket_address(int directory, const std::string &name);

/* Makes a listening socket that every user may connect to; replaces a stale one. */
Result<UniqueFd> listen_socket(const std::string &run_dir, const std::string &name);

/*
 * Errors: -ENOENT and -ECONNREFUSED: no tarnd runs there; -EPERM: another user's program listens
 * there.
 */
Result<UniqueFd> connect_socket(const std::string &run_dir, const std::string &name);

/* Does the error of connect_socket() mean that no tarnd runs there? */
bool no_tarnd_there(const Error &error);

/* The peer's credentials at the time of its connect() or listen(). */
Result<ucred> peer_credentials(int connection);

/* The listening process at the other end. */
Result<pid_t> serving_process(const UniqueFd &connection);

}  // namespace tarn

#endif
