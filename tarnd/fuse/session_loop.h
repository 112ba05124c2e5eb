/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The threads that serve one FUSE session.
 *
 * A pool of workers, as many as the load needs (idle_worker_count.h) and at most one per processor.
 * With more, the host kernel would wake a worker for each request although another has just become
 * idle. A request may block for long (for a daemon that does not read), so the thread in run()
 * supervises the pool: it samples the workers, adds a substitute for a slow worker, and parks
 * surplus workers. Sampling costs the requests nothing.
 *
 * run() is called once. It returns when the last worker has ended, after the file system was
 * unmounted or stop() was called; requests in progress are finished first. Any thread may call
 * stop(), also before run().
 */
#ifndef TARND_FUSE_SESSION_LOOP_H
#define TARND_FUSE_SESSION_LOOP_H

#include <pthread.h>

#include <atomic>
#include <list>

#include "base/mutex.h"
#include "tarnd/fuse/fuse_api.h"
#include "tarnd/fuse/idle_worker_count.h"

namespace tarnd {

class SessionLoop {
 public:
  explicit SessionLoop(fuse_session *session);

  void run() EXCLUDES(mutex_);
  void stop() EXCLUDES(mutex_);

 private:
  enum class State { kIdle, kBusy, kParked };
  struct Worker {
    pthread_t thread;
    std::atomic<State> state = State::kIdle;
    std::atomic<unsigned> served = 0;  // requests taken, the current one included
    unsigned sampled = 0;              // `served` at the last sample; the supervisor's
    int unchanged = 0;                 // samples since it changed; the supervisor's

    // Only the worker itself writes these while it serves.
    void set(State to) { state.store(to, std::memory_order_release); }
    // Sequentially consistent: either the worker sees supervisor_asleep_, or the supervisor sees
    // the request.
    void count_request() { served.store(served + 1, std::memory_order_seq_cst); }
  };

  void add_worker_locked() REQUIRES(mutex_);
  void work() EXCLUDES(mutex_);
  void serve_requests(Worker *worker, fuse_buf *buf) EXCLUDES(mutex_);
  void park(Worker *worker) EXCLUDES(mutex_);
  bool request_queued() const;
  bool supervise_locked() REQUIRES(mutex_);
  void adjust_locked(int available, int parked) REQUIRES(mutex_);
  void interrupt_idle_locked() REQUIRES(mutex_);

  fuse_session *session_;
  IdleWorkerCount idle_count_ GUARDED_BY(mutex_);
  std::atomic<bool> stopping_ = false;
  std::atomic<int> excess_ = 0;                  // available workers beyond its target
  std::atomic<bool> supervisor_asleep_ = false;  // until a worker takes a request

  tarn::Mutex mutex_;
  // A request was taken while supervisor_asleep_, a worker has ended, or stopping_ was set.
  tarn::Condition changed_;
  tarn::Condition unparked_;  // unpark_ has grown, or stopping_ was set
  std::list<Worker> workers_ GUARDED_BY(mutex_);
  int threads_ GUARDED_BY(mutex_) = 0;  // workers_, and those that are starting
  int unpark_ GUARDED_BY(mutex_) = 0;   // parked workers that are to continue
};

}  // namespace tarnd

#endif
