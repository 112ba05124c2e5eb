// SPDX-License-Identifier: GPL-2.0
#include "client/signal_pipe.h"

#include <atomic>
#include <cerrno>

namespace tarn {
namespace {

constexpr int kSignals = 65;

/* The state of one signal: the pipe that its handler writes to, or -1, and the pending count. */
struct Slot {
  std::atomic<int> fd{-1};
  std::atomic<std::uint64_t> pending{0};
};
Slot g_slots[kSignals];
static_assert(std::atomic<int>::is_always_lock_free &&
                  std::atomic<std::uint64_t>::is_always_lock_free,
              "used in a signal handler");

void on_signal(int signal) {
  const int saved = errno;
  Slot &slot = g_slots[signal];
  const int fd = slot.fd.load();
  if (fd >= 0) {
    ++slot.pending;
    raise_pipe(fd);
  }
  errno = saved;
}

}  // namespace

Result<std::unique_ptr<SignalPipe>> SignalPipe::open(std::initializer_list<int> signals) {
  auto pipe = make_pipe("cannot wait for signals");
  if (!pipe) return pipe.error();
  std::unique_ptr<SignalPipe> made(new SignalPipe(std::move(*pipe)));
  for (const int signal : signals) {
    if (auto caught = made->catch_signal(signal); !caught) return caught.error();
  }
  return made;
}

Result<void> SignalPipe::catch_signal(int signal) {
  int unused = -1;
  if (!g_slots[signal].fd.compare_exchange_strong(unused, pipe_.write_end.get()))
    return system_error(EBUSY, "this process waits for the signal already");
  g_slots[signal].pending = 0;
  struct sigaction action {
  }, old{};
  action.sa_handler = on_signal;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  if (sigaction(signal, &action, &old) != 0) {
    const int err = errno;
    g_slots[signal].fd = -1;
    return system_error(err, "cannot wait for a signal");
  }
  caught_.push_back({signal, old});
  return {};
}

SignalPipe::~SignalPipe() {
  for (const Caught &caught : caught_) {
    sigaction(caught.signal, &caught.old, nullptr);
    g_slots[caught.signal].fd = -1;
  }
}

int SignalPipe::take() {
  char byte;
  if (read(fd(), &byte, 1) != 1) return 0;
  for (const Caught &caught : caught_) {
    std::uint64_t pending = g_slots[caught.signal].pending;
    while (pending != 0) {
      if (g_slots[caught.signal].pending.compare_exchange_weak(pending, pending - 1))
        return caught.signal;
    }
  }
  return 0;
}

std::uint64_t SignalPipe::take_all() {
  char bytes[64];
  while (read(fd(), bytes, sizeof(bytes)) > 0) {
  }
  std::uint64_t count = 0;
  for (const Caught &caught : caught_) count += g_slots[caught.signal].pending.exchange(0);
  return count;
}

}  // namespace tarn
