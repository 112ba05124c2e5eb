/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The module sends the daemon's process signal 58 when a message to it was lost. Its default action
 * would end the process. While a LossSignal exists, the signal is counted instead and makes a
 * descriptor readable. There is one per process at a time; its handler is for the whole process,
 * whichever threads there are.
 */
#ifndef TARN_CLIENT_LOSS_SIGNAL_H
#define TARN_CLIENT_LOSS_SIGNAL_H

#include <csignal>
#include <cstdint>
#include <memory>

#include "client/result.h"
#include "client/unique_fd.h"

namespace tarn {

class LossSignal {
 public:
  static Result<std::unique_ptr<LossSignal>> install();
  ~LossSignal();
  LossSignal(const LossSignal &) = delete;
  LossSignal &operator=(const LossSignal &) = delete;

  /* Readable while there are signals that take() has not returned. */
  int fd() const { return event_.get(); }

  /* The signals since the last call. */
  std::uint64_t take();

 private:
  explicit LossSignal(UniqueFd event) : event_(std::move(event)) {}

  UniqueFd event_;
  struct sigaction old_ {};
};

}  // namespace tarn

#endif
