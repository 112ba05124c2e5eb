// SPDX-License-Identifier: GPL-2.0
#include "base/standard_fds.h"

#include <fcntl.h>
#include <unistd.h>

namespace tarn {

void hold_standard_descriptors() {
  int fd;
  do {
    fd = open("/dev/null", O_RDONLY);
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd >= 0) close(fd);
}

}  // namespace tarn
