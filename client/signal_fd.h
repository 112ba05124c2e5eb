/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Signals as something to wait for. Made before the process has other threads: the signals are
 * blocked in the calling thread and in those that it makes later, and stay blocked.
 */
#ifndef TARN_CLIENT_SIGNAL_FD_H
#define TARN_CLIENT_SIGNAL_FD_H

#include <initializer_list>

#include "client/result.h"
#include "client/unique_fd.h"

namespace tarn {

class SignalFd {
 public:
  static Result<SignalFd> block(std::initializer_list<int> signals);

  /* Readable while a signal waits. */
  int fd() const { return fd_.get(); }

  /* The next signal that waits, or 0. */
  int take();

 private:
  explicit SignalFd(UniqueFd fd) : fd_(std::move(fd)) {}

  UniqueFd fd_;
};

}  // namespace tarn

#endif
