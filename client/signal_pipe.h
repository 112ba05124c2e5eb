/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Signals as something to wait for, on every kernel: a handler counts them and makes a pipe
 * readable. While the object exists its signals do nothing else. The handlers are for the whole
 * process, whichever threads there are; a call that waits is restarted or ends with EINTR, as the
 * signal finds it.
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
  /* Errors: -EBUSY if a SignalPipe of this process has one of the signals already. */
  static Result<std::unique_ptr<SignalPipe>> open(std::initializer_list<int> signals);

  /* Gives the signals back what they did before. */
  ~SignalPipe();
  SignalPipe(const SignalPipe &) = delete;
  SignalPipe &operator=(const SignalPipe &) = delete;

  /* Readable while a signal waits. */
  int fd() const { return pipe_.read_end.get(); }

  /* The next signal that waits, or 0. Of several, the one named first to open(). */
  int take();

  /* All that wait: how many there are. */
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
