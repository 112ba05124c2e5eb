/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The threads that serve one FUSE session.
 *
 * A few workers take requests, as many as the load needs and no more than there are processors to
 * run them: with more, the host kernel would wake a resting one for each request rather than let
 * the one that has just answered go on. A request may wait long (for a daemon that does not read),
 * so whoever calls run() looks after them: a worker that has been at one request for a while is
 * slow and gets a substitute, and when there are too many again, some rest. What it sees there also
 * tells how many are needed, at no cost to the requests.
 *
 * run() is called once and returns when the file system has been unmounted or stop() was called,
 * and the last thread has ended. stop() may come from any thread, also before run(); requests that
 * are in work are finished first.
 */
#ifndef TARND_FUSE_SESSION_LOOP_H
#define TARND_FUSE_SESSION_LOOP_H

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <list>
#include <mutex>

#include "tarnd/fuse/fuse_api.h"
#include "tarnd/fuse/taker_count.h"

namespace tarnd {

class SessionLoop {
 public:
  explicit SessionLoop(fuse_session *session);

  void run();
  void stop();

 private:
  enum class State { kTaking, kServing, kResting };
  struct Worker {
    pthread_t thread;
    std::atomic<State> state = State::kTaking;
    std::atomic<unsigned> served = 0;  // requests taken, this one included
    unsigned seen = 0;                 // `served` at the last look; under mutex_
    int same = 0;                      // looks since it changed; under mutex_

    // By the worker itself: nobody else writes these while it serves.
    void set(State to) { state.store(to, std::memory_order_release); }
    // Not weaker: either the worker sees looking_away_, or who sets that sees the request.
    void took_one() { served.store(served + 1, std::memory_order_seq_cst); }
  };

  void add_worker_locked();
  void work();
  void serve_requests(Worker *worker, fuse_buf *buf);
  void rest(Worker *worker);
  bool request_waits() const;
  bool look_after_locked();
  void adjust_locked(int able, int resting);
  void interrupt_taking_locked();

  fuse_session *session_;
  TakerCount takers_;  // how many shall be able to take a request; under mutex_
  std::atomic<bool> stopping_ = false;
  std::atomic<int> surplus_ = 0;            // how many more than that there are
  std::atomic<bool> looking_away_ = false;  // run() waits for a request to be taken

  std::mutex mutex_;
  std::condition_variable changed_;  // a request was taken while looking_away_, a worker has ended,
                                     // or stopping_ was set
  std::condition_variable needed_;   // needs_ has grown, or stopping_ was set
  std::list<Worker> workers_;        // under mutex_
  int threads_ = 0;                  // those and the ones about to be; under mutex_
  int needs_ = 0;                    // how many of the resting are to go on; under mutex_
};

}  // namespace tarnd

#endif
