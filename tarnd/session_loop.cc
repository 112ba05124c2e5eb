// SPDX-License-Identifier: GPL-2.0
#include "tarnd/session_loop.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>

#include "tarnd/caller.h"

namespace tarnd {

// A request may wait long (a daemon that does not read), so many may be in work at once; few need
// to wait.
static constexpr int kMaxWorkers = 128;
static constexpr int kMaxIdle = 4;

SessionLoop::SessionLoop(fuse_session *session)
    : session_(session), stop_event_(eventfd(0, EFD_CLOEXEC)) {
  if (!stop_event_) throw std::runtime_error(std::string("eventfd: ") + std::strerror(errno));
  // A worker that loses the race for a request must go back to poll, where stop() reaches it.
  const int fd = fuse_session_fd(session_);
  if (fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK) < 0)
    throw std::runtime_error(std::string("fcntl: ") + std::strerror(errno));
}

void SessionLoop::run() {
  std::unique_lock lock(mutex_);
  add_worker_locked();
  ended_.wait(lock, [this] { return workers_ == 0; });
}

void SessionLoop::stop() {
  const std::uint64_t one = 1;
  const ssize_t written = write(stop_event_.get(), &one, sizeof(one));
  if (written != sizeof(one)) std::abort();  // an eventfd that is set once has room
}

void SessionLoop::add_worker_locked() {
  if (workers_ >= kMaxWorkers) return;
  try {
    std::thread([this] { work(); }).detach();
    workers_++;
    idle_++;
  } catch (const std::system_error &e) {
    std::fprintf(stderr, "tarnd: no further thread for a mount: %s\n", e.what());
    if (workers_ == 0) throw;
  }
}

// True when there may be a request, false when the session is over.
bool SessionLoop::wait_for_request() {
  pollfd fds[2] = {{fuse_session_fd(session_), POLLIN, 0}, {stop_event_.get(), POLLIN, 0}};
  while (poll(fds, 2, -1) < 0) {
    if (errno != EINTR) return false;
  }
  return fds[1].revents == 0;
}

void SessionLoop::one_less_idle() {
  const std::lock_guard lock(mutex_);
  if (--idle_ == 0) add_worker_locked();
}

// False: enough others wait already.
bool SessionLoop::one_more_idle() {
  const std::lock_guard lock(mutex_);
  if (idle_ >= kMaxIdle) return false;
  idle_++;
  return true;
}

// Serves until the session is over (true; the worker counts as idle) or it is not needed (false; it
// does not).
bool SessionLoop::serve_requests(fuse_buf *buf) {
  while (!fuse_session_exited(session_)) {
    const int n = fuse_session_receive_buf(session_, buf);
    if (n == -EINTR) continue;
    if (n == -EAGAIN) {
      if (!wait_for_request()) return true;
      continue;
    }
    if (n <= 0) return true;
    one_less_idle();
    fuse_session_process_buf(session_, buf);
    if (!one_more_idle()) return false;
  }
  return true;
}

void SessionLoop::work() {
  fuse_buf buf{};
  bool counted_idle;
  {
    const CallerTask task;
    counted_idle = serve_requests(&buf);
  }
  std::free(buf.mem);
  const std::lock_guard lock(mutex_);
  if (counted_idle) idle_--;
  workers_--;
  ended_.notify_all();
}

}  // namespace tarnd
