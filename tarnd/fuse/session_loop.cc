// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/session_loop.h"

#include <poll.h>
#include <sched.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string>
#include <system_error>
#include <thread>

#include "tarnd/fuse/caller.h"
#include "tarnd/process/limited_warning.h"

namespace tarnd {

static constexpr int kMaxWorkers = 128;
static constexpr int kMaxTaking = 8;

// A request that is in work at so many looks after the first is slow. After so many looks at which
// nothing had happened, nobody looks until something does.
static constexpr std::chrono::milliseconds kLook{2};
static constexpr int kSlowLooks = 3;
static constexpr int kIdleLooks = 25;

// Makes a read of the next request return; what it does is nothing.
static constexpr int kInterrupt = SIGURG;
static constexpr std::chrono::milliseconds kInterruptAgain{10};

static void install_interrupt() {
  struct sigaction action {};
  action.sa_handler = [](int) {};  // not SIG_IGN, which would interrupt nothing
  sigaction(kInterrupt, &action, nullptr);
}

// That this program may run on; what the library counts is all that there are.
static int processors() {
  cpu_set_t set;
  return sched_getaffinity(0, sizeof(set), &set) == 0 ? CPU_COUNT(&set) : 1;
}

SessionLoop::SessionLoop(fuse_session *session)
    : session_(session), takers_(std::clamp(processors(), 1, kMaxTaking)) {
  static std::once_flag once;
  std::call_once(once, install_interrupt);
}

void SessionLoop::run() {
  std::unique_lock lock(mutex_);
  add_worker_locked();
  for (int idle = 0; threads_ > 0 && !stopping_;) {
    idle = look_after_locked() ? 0 : idle + 1;
    if (idle < kIdleLooks) {
      changed_.wait_for(lock, kLook);
      continue;
    }
    // What was taken before this is seen by a last look, what is taken later ends the wait.
    looking_away_ = true;
    if (!look_after_locked())
      changed_.wait(lock, [this] { return !looking_away_ || threads_ == 0 || stopping_; });
    looking_away_ = false;
    idle = 0;
  }
  // A worker that was about to read when it was interrupted reads all the same.
  while (threads_ > 0) {
    interrupt_taking_locked();
    changed_.wait_for(lock, kInterruptAgain);
  }
}

void SessionLoop::stop() {
  const std::lock_guard lock(mutex_);
  stopping_ = true;
  changed_.notify_all();
  needed_.notify_all();
}

bool SessionLoop::request_waits() const {
  pollfd device = {fuse_session_fd(session_), POLLIN, 0};
  return poll(&device, 1, 0) > 0 && (device.revents & POLLIN);
}

// Counts who is able to take a request, now or soon, and sees to it that there are as many as shall
// be. Whether a request was taken since the last look.
bool SessionLoop::look_after_locked() {
  TakerCount::Look look;
  look.able = threads_ - static_cast<int>(workers_.size()) + needs_;
  look.free = look.able;
  int resting = -needs_;
  bool taken = false;
  for (Worker &worker : workers_) {
    const State state = worker.state;
    const unsigned served = worker.served;
    const bool same = worker.seen == served;
    worker.same = same ? std::min(worker.same + 1, kSlowLooks) : 0;
    worker.seen = served;
    taken |= !same;
    resting += state == State::kResting;
    look.free += state == State::kTaking;
    look.serving += state == State::kServing;
    look.able += state == State::kTaking || (state == State::kServing && worker.same < kSlowLooks);
  }
  look.waiting = request_waits();
  if (taken || look.serving > 0 || look.waiting) takers_.saw(look);
  adjust_locked(look.able, resting);
  return taken;
}

void SessionLoop::adjust_locked(int able, int resting) {
  const int wanted = takers_.wanted();
  surplus_ = std::max(able - wanted, 0);
  for (; able < wanted; able++) {
    if (resting > 0) {
      resting--;
      needs_++;
      needed_.notify_one();
    } else {
      add_worker_locked();
    }
  }
}

// Those without a request alone: a request in work is not to be disturbed.
void SessionLoop::interrupt_taking_locked() {
  for (const Worker &worker : workers_)
    if (worker.state == State::kTaking) pthread_kill(worker.thread, kInterrupt);
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

// Returns when the worker is needed, or is to end.
void SessionLoop::rest(Worker *worker) {
  std::unique_lock lock(mutex_);
  if (surplus_ == 0 || stopping_) return;
  surplus_--;
  worker->state = State::kResting;
  needed_.wait(lock, [this] { return needs_ > 0 || stopping_; });
  if (needs_ > 0) needs_--;
  worker->state = State::kTaking;
}

void SessionLoop::serve_requests(Worker *worker, fuse_buf *buf) {
  while (!stopping_ && !fuse_session_exited(session_)) {
    const int n = fuse_session_receive_buf(session_, buf);
    if (n == -EINTR || n == -EAGAIN) continue;
    if (n <= 0) return;
    worker->took_one();
    worker->set(State::kServing);  // last: a look must not take it for one that has been there
    if (looking_away_ && looking_away_.exchange(false)) {
      const std::lock_guard lock(mutex_);
      changed_.notify_all();
    }
    fuse_session_process_buf(session_, buf);
    worker->set(State::kTaking);
    if (surplus_ > 0) rest(worker);
  }
}

void SessionLoop::work() {
  std::unique_lock lock(mutex_);
  const auto self = workers_.emplace(workers_.end());
  self->thread = pthread_self();
  lock.unlock();

  fuse_buf buf{};
  {
    const CallerTask task;
    serve_requests(&*self, &buf);
  }
  std::free(buf.mem);

  // A worker ends only with the session.
  lock.lock();
  stopping_ = true;
  needed_.notify_all();
  workers_.erase(self);
  threads_--;
  changed_.notify_all();
}

}  // namespace tarnd
