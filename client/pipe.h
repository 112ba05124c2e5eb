/* SPDX-License-Identifier: GPL-2.0 */
/* A pipe by which a thread or a signal handler wakes a polling thread of the same process. */
#ifndef TARN_CLIENT_PIPE_H
#define TARN_CLIENT_PIPE_H

#include <string>

#include "base/result.h"
#include "base/unique_fd.h"

namespace tarn {

/* Both ends are close-on-exec and non-blocking. */
struct Pipe {
  UniqueFd read_end, write_end;
};

/* Errors: those of pipe2(2); `what` begins the text. */
Result<Pipe> make_pipe(const std::string &what);

/* Makes the pipe readable; a full one is already. Async-signal-safe, but may change errno. */
void raise_pipe(int write_end);

}  // namespace tarn

#endif
