/* SPDX-License-Identifier: GPL-2.0 */
/* Owns a file descriptor and closes it when destroyed. -1 is "none". */
#ifndef TARN_BASE_UNIQUE_FD_H
#define TARN_BASE_UNIQUE_FD_H

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace tarn {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd &operator=(UniqueFd &&other) noexcept {
    if (this != &other) {
      reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  ~UniqueFd() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  /* Gives the ownership to the caller. */
  int release() { return std::exchange(fd_, -1); }
  void reset() { static_cast<void>(close()); }
  /* Closes a written file and returns 0 or the error number: some file systems report write-back
   * errors only here. The descriptor is closed in any case. */
  [[nodiscard]] int close() {
    const int fd = std::exchange(fd_, -1);
    return fd >= 0 && ::close(fd) != 0 ? errno : 0;
  }

 private:
  int fd_ = -1;
};

}  // namespace tarn

#endif
