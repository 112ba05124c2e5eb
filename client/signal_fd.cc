// SPDX-License-Identifier: GPL-2.0
#include "client/signal_fd.h"

#include <sys/signalfd.h>

#include <cerrno>
#include <csignal>

namespace tarn {

Result<SignalFd> SignalFd::block(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : signals) sigaddset(&set, signal);
  if (const int err = pthread_sigmask(SIG_BLOCK, &set, nullptr); err != 0)
    return system_error(err, "cannot block signals");
  UniqueFd fd(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!fd) return system_error(errno, "cannot wait for signals");
  return SignalFd(std::move(fd));
}

int SignalFd::take() {
  signalfd_siginfo info;
  return read(fd_.get(), &info, sizeof(info)) == sizeof(info) ? static_cast<int>(info.ssi_signo)
                                                              : 0;
}

}  // namespace tarn
