// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/session_loop.h"

#include <poll.h>
#include <sched.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>

#include "tarnd/fuse/caller.h"
#include "tarnd/process/limited_warning.h"

namespace tarnd {

using tarn::MutexLock;

static constexpr int kMaxWorkers = 128;
static constexpr int kMaxTarget = 8;

// A request is slow when it is in progress for this many samples after the first. After this many
// samples without activity, the supervisor sleeps until the next request.
static constexpr std::chrono::milliseconds kSampleInterval{2};
static constexpr int kSlowSamples = 3;
static constexpr int kQuietSamples = 25;

// Interrupts a worker's read of the next request. The handler does nothing.
static constexpr int kInterrupt = SIGURG;
static constexpr std::chrono::milliseconds kInterruptAgain{10};

static void install_interrupt() {
  struct sigaction action {};
  action.sa_handler = [](int) {};  // not SIG_IGN, which would interrupt nothing
  sigaction(kInterrupt, &action, nullptr);
}

// The processors that this program may run on; the standard library counts all online ones.
static int processors() {
  cpu_set_t set;
  return sched_getaffinity(0, sizeof(set), &set) == 0 ? CPU_COUNT(&set) : 1;
}

SessionLoop::SessionLoop(fuse_session *session)
    : session_(session), idle_count_(std::clamp(processors(), 1, kMaxTarget)) {
  static std::once_flag once;
  std::call_once(once, install_interrupt);
}

void SessionLoop::run() {
  MutexLock lock(mutex_);
  add_worker_locked();
  for (int idle = 0; threads_ > 0 && !stopping_;) {
    idle = supervise_locked() ? 0 : idle + 1;
    if (idle < kQuietSamples) {
      changed_.wait_for(lock, kSampleInterval);
      continue;
    }
    // A request taken before this line is seen by the next sample; a later one ends the wait.
    supervisor_asleep_ = true;
    if (!supervise_locked())
      while (supervisor_asleep_ && threads_ > 0 && !stopping_) changed_.wait(lock);
    supervisor_asleep_ = false;
    idle = 0;
  }
  // Repeated: an interrupt just before the read has no effect.
  while (threads_ > 0) {
    interrupt_idle_locked();
    changed_.wait_for(lock, kInterruptAgain);
  }
}

void SessionLoop::stop() {
  const MutexLock lock(mutex_);
  stopping_ = true;
  changed_.notify_all();
  unparked_.notify_all();
}

bool SessionLoop::request_queued() const {
  pollfd device = {fuse_session_fd(session_), POLLIN, 0};
  return poll(&device, 1, 0) > 0 && (device.revents & POLLIN);
}

// Samples the workers and adjusts the number of available ones. True if a request was taken since
// the last sample.
bool SessionLoop::supervise_locked() {
  IdleWorkerCount::Sample sample;
  sample.available = threads_ - static_cast<int>(workers_.size()) + unpark_;
  sample.idle = sample.available;
  int parked = -unpark_;
  bool taken = false;
  for (Worker &worker : workers_) {
    const State state = worker.state;
    const unsigned served = worker.served;
    const bool same = worker.sampled == served;
    worker.unchanged = same ? std::min(worker.unchanged + 1, kSlowSamples) : 0;
    worker.sampled = served;
    taken |= !same;
    parked += state == State::kParked;
    sample.idle += state == State::kIdle;
    sample.busy += state == State::kBusy;
    sample.available +=
        state == State::kIdle || (state == State::kBusy && worker.unchanged < kSlowSamples);
  }
  sample.queued = request_queued();
  if (taken || sample.busy > 0 || sample.queued) idle_count_.add(sample);
  adjust_locked(sample.available, parked);
  return taken;
}

void SessionLoop::adjust_locked(int available, int parked) {
  const int target = idle_count_.target();
  excess_ = std::max(available - target, 0);
  for (; available < target; available++) {
    if (parked > 0) {
      parked--;
      unpark_++;
      unparked_.notify_one();
    } else {
      add_worker_locked();
    }
  }
}

// Not the busy ones: a signal would interrupt the request in progress.
void SessionLoop::interrupt_idle_locked() {
  for (const Worker &worker : workers_)
    if (worker.state == State::kIdle) pthread_kill(worker.thread, kInterrupt);
}

void SessionLoop::add_worker_locked() {
  if (threads_ >= kMaxWorkers) return;
  try {
    std::thread([this] { work(); }).detach();
    threads_++;
  } catch (const std::system_error &e) {
    static LimitedWarning no_thread;
    no_thread.print(std::string("no further thread for a mount: ") + e.what());
    if (threads_ == 0) throw;
  }
}

// Returns when the worker is unparked or has to end.
void SessionLoop::park(Worker *worker) {
  MutexLock lock(mutex_);
  if (excess_ == 0 || stopping_) return;
  excess_--;
  worker->state = State::kParked;
  while (unpark_ == 0 && !stopping_) unparked_.wait(lock);
  if (unpark_ > 0) unpark_--;
  worker->state = State::kIdle;
}

void SessionLoop::serve_requests(Worker *worker, fuse_buf *buf) {
  while (!stopping_ && !fuse_session_exited(session_)) {
    const int n = fuse_session_receive_buf(session_, buf);
    if (n == -EINTR || n == -EAGAIN) continue;
    if (n <= 0) return;
    worker->count_request();
    worker->set(State::kBusy);  // last: a sample must not count the previous request as slow
    if (supervisor_asleep_ && supervisor_asleep_.exchange(false)) {
      const MutexLock lock(mutex_);
      changed_.notify_all();
    }
    fuse_session_process_buf(session_, buf);
    worker->set(State::kIdle);
    if (excess_ > 0) park(worker);
  }
}

void SessionLoop::work() {
  MutexLock lock(mutex_);
  const auto self = workers_.emplace(workers_.end());
  self->thread = pthread_self();
  lock.unlock();

  fuse_buf buf{};
  {
    const CallerTask task;
    serve_requests(&*self, &buf);
  }
  std::free(buf.mem);

  // A worker ends only when the session does.
  lock.lock();
  stopping_ = true;
  unparked_.notify_all();
  workers_.erase(self);
  threads_--;
  changed_.notify_all();
}

}  // namespace tarnd
