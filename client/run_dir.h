/* SPDX-License-Identifier: GPL-2.0 */
/* Where the sockets of a running tarnd are. */
#ifndef TARN_CLIENT_RUN_DIR_H
#define TARN_CLIENT_RUN_DIR_H

#include <sys/types.h>

#include <string>

#include "client/result.h"
#include "client/unique_fd.h"

namespace tarn {

/* $TARN_RUN_DIR if set; else /run/tarn for root; else $XDG_RUNTIME_DIR/tarn; else /tmp/tarn-<uid>.
 */
std::string run_directory();

/*
 * Connects to the packet socket `name` in the directory, however long the directory's path is.
 * Errors: -ENOENT and -ECONNREFUSED mean that no tarnd runs there; -EPERM that what listens there
 * is another user's program.
 */
Result<UniqueFd> connect_socket(const std::string &run_dir, const std::string &name);

/* The process that listens at the other end of the connection. */
Result<pid_t> serving_process(const UniqueFd &connection);

/* Is the error one that says that no tarnd runs there? */
bool nobody_there(const Error &error);

}  // namespace tarn

#endif
