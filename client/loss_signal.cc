// SPDX-License-Identifier: GPL-2.0
#include "client/loss_signal.h"

#include <cerrno>
#include <csignal>

#include "module/os_public/Include/ox_msg.h"

namespace tarn {

Result<std::unique_ptr<LossSignal>> LossSignal::install() {
  // SignalPipe restores the action that it finds. One more signal may arrive after the daemon has
  // left; it must not end the process.
  struct sigaction found;
  if (sigaction(OX_SIG_LOST, nullptr, &found) == 0 && found.sa_handler == SIG_DFL)
    std::signal(OX_SIG_LOST, SIG_IGN);
  auto pipe = SignalPipe::open({OX_SIG_LOST});
  if (!pipe && pipe.error().code == -EBUSY)
    return Error{-EBUSY, "this process is already a daemon of the module"};
  if (!pipe) return pipe.error();
  return std::unique_ptr<LossSignal>(new LossSignal(std::move(*pipe)));
}

}  // namespace tarn
