/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The threads that serve one FUSE session: as many as there are requests in work, and one that
 * waits.
 *
 * run() is called once and returns when the file system has been unmounted or stop() was called,
 * and the last thread has ended. stop() may come from any thread, also before run().
 */
#ifndef TARND_SESSION_LOOP_H
#define TARND_SESSION_LOOP_H

#include <condition_variable>
#include <mutex>

#include "tarnd/fuse_api.h"
#include "tarnd/unique_fd.h"

namespace tarnd {

class SessionLoop {
 public:
  explicit SessionLoop(fuse_session *session); /* std::runtime_error without descriptors */

  void run();
  void stop();

 private:
  void add_worker_locked();
  void work();
  bool wait_for_request();
  bool serve_requests(fuse_buf *buf);
  void one_less_idle();
  bool one_more_idle();

  fuse_session *session_;
  UniqueFd stop_event_;

  std::mutex mutex_;
  std::condition_variable ended_;
  int workers_ = 0;  // under mutex_
  int idle_ = 0;     // under mutex_
};

}  // namespace tarnd

#endif
