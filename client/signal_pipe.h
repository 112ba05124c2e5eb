/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Signals as a pollable descriptor, on every kernel: a handler counts them and makes a pipe
 * readable. The handlers replace the signals' actions for the whole process while the object
 * exists. A blocking call is restarted or ends with EINTR (SA_RESTART).
 */
#ifndef TARN_CLIENT_SIGNAL_PIPE_H
#define TARN_CLIENT_SIGNAL_PIPE_H

#include <csignal>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <vector>

#include "base/result.h"
#include "client/pipe.h"

namespace tarn {

class SignalPipe {
 public:
  /* Errors: -EBUSY if another SignalPipe of this process has one of the signals. */
  static Result<std::unique_ptr<SignalPipe>> open(std::initializer_list<int> signals);

  /* Restores the signals' former actions. */
  ~SignalPipe();
  SignalPipe(const SignalPipe &) = delete;
  SignalPipe &operator=(const SignalPipe &) = delete;

  /* Readable while a signal is pending. */
  int fd() const { return pipe_.read_end.get(); }

  /* Takes a pending signal, or 0: of several, the first in the order of open()'s list. */
  int take();

  /* Takes all pending signals and returns their number. */
  std::uint64_t take_all();

 private:
  explicit SignalPipe(Pipe pipe) : pipe_(std::move(pipe)) {}

  Result<void> catch_signal(int signal);

  struct Caught {
    int signal;
    struct sigaction old;
  };

  Pipe pipe_;
  std::vector<Caught> caught_;
};

}  // namespace tarn

#endif
