// SPDX-License-Identifier: GPL-2.0
#include "base/text_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "base/unique_fd.h"

namespace tarn {

int write_text(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

Result<std::string> read_text(int fd, const std::string &what) {
  std::string text;
  char part[4096];
  ssize_t got;
  while ((got = read(fd, part, sizeof(part))) != 0) {
    if (got < 0 && errno != EINTR) return system_error(errno, what);
    if (got > 0) text.append(part, static_cast<std::size_t>(got));
  }
  return text;
}

Result<std::string> read_text(const std::string &file, const std::string &what) {
  const UniqueFd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) return system_error(errno, what);
  return read_text(fd.get(), what);
}

}  // namespace tarn
