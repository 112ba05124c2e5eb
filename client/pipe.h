/* SPDX-License-Identifier: GPL-2.0 */
/* A pipe within the process by which one thread, or a signal's handler, wakes another that polls.
 */
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

/* Makes the pipe readable; one that is full is readable all the same. For signal handlers too, but
 * that errno may change. */
void raise_pipe(int write_end);

}  // namespace tarn

#endif
