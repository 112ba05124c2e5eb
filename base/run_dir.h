/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The run directory of a tarnd: where it is, its sockets, and who is at the other end of one. They
 * are packet sockets, and their paths may be longer than a socket address holds.
 */
#ifndef TARN_BASE_RUN_DIR_H
#define TARN_BASE_RUN_DIR_H

#include <sys/socket.h>
#include <sys/types.h>

#include <string>

#include "base/result.h"
#include "base/unique_fd.h"

namespace tarn {

/* $TARN_RUN_DIR if set; else /run/tarn for root; else $XDG_RUNTIME_DIR/tarn; else /tmp/tarn-<uid>.
 */
std::string run_directory();

/* The file in it that a tarnd holds locked (flock) from before it serves until after it has served.
 */
inline constexpr char kTarndLock[] = "lock";

/* A listening socket that everybody may connect to; replaces a stale one. */
Result<UniqueFd> listen_socket(const std::string &run_dir, const std::string &name);

/*
 * Errors: -ENOENT and -ECONNREFUSED mean that no tarnd runs there; -EPERM that what listens there
 * is another user's program.
 */
Result<UniqueFd> connect_socket(const std::string &run_dir, const std::string &name);

/* Is the error one that says that no tarnd runs there? */
bool no_tarnd_there(const Error &error);

/* The process at the other end, as it was when it connected or began to listen. */
Result<ucred> peer_credentials(int connection);

/* The process that listens at the other end of the connection. */
Result<pid_t> serving_process(const UniqueFd &connection);

}  // namespace tarn

#endif
