/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The module sends the daemon's process signal 58 when a message to it was lost. The signal's
 * default action ends the process. While a LossSignal exists, the signal is counted instead and
 * makes a descriptor readable. There is one per process at a time. Afterwards the signal is
 * ignored.
 */
#ifndef TARN_CLIENT_LOSS_SIGNAL_H
#define TARN_CLIENT_LOSS_SIGNAL_H

#include <cstdint>
#include <memory>

#include "base/result.h"
#include "client/signal_pipe.h"

namespace tarn {

class LossSignal {
 public:
  /* Errors: -EBUSY if there is one already. */
  static Result<std::unique_ptr<LossSignal>> install();

  /* Readable while there are signals that take() has not returned. */
  int fd() const { return pipe_->fd(); }

  /* The signals since the last call. */
  std::uint64_t take() { return pipe_->take_all(); }

 private:
  explicit LossSignal(std::unique_ptr<SignalPipe> pipe) : pipe_(std::move(pipe)) {}

  std::unique_ptr<SignalPipe> pipe_;
};

}  // namespace tarn

#endif
