// SPDX-License-Identifier: GPL-2.0
#include "client/loss_signal.h"

#include <sys/eventfd.h>

#include <atomic>
#include <cerrno>

#include "module/os_public/Include/ox_msg.h"

namespace tarn {
namespace {

std::atomic<int> g_event{-1};
static_assert(std::atomic<int>::is_always_lock_free, "used in a signal handler");

void on_signal(int) {
  const int saved = errno;
  const int fd = g_event.load();
  if (fd >= 0) eventfd_write(fd, 1);
  errno = saved;
}

}  // namespace

Result<std::unique_ptr<LossSignal>> LossSignal::install() {
  UniqueFd event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!event) return system_error(errno, "cannot watch for lost messages");
  int none = -1;
  if (!g_event.compare_exchange_strong(none, event.get()))
    return Error{-EBUSY, "this process is already a daemon of the module"};
  std::unique_ptr<LossSignal> signal(new LossSignal(std::move(event)));
  struct sigaction action {};
  action.sa_handler = on_signal;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  if (sigaction(OX_SIG_LOST, &action, &signal->old_) != 0)
    return system_error(errno, "cannot watch for lost messages");
  return signal;
}

LossSignal::~LossSignal() {
  g_event = -1;
  // One may still be on its way to a process that has just left; it is no reason to die.
  if (old_.sa_handler == SIG_DFL) old_.sa_handler = SIG_IGN;
  sigaction(OX_SIG_LOST, &old_, nullptr);
}

std::uint64_t LossSignal::take() {
  eventfd_t count = 0;
  return eventfd_read(event_.get(), &count) == 0 ? count : 0;
}

}  // namespace tarn
