// SPDX-License-Identifier: GPL-2.0
#include "client/pipe.h"

#include <fcntl.h>

#include <cerrno>

namespace tarn {

Result<Pipe> make_pipe(const std::string &what) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return system_error(errno, what);
  return Pipe{UniqueFd(ends[0]), UniqueFd(ends[1])};
}

void raise_pipe(int write_end) {
  while (write(write_end, "", 1) < 0 && errno == EINTR) {
  }
}

}  // namespace tarn
