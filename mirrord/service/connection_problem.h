/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What keeps a connection from working at present: kept for whoever asks, and logged when it begins
 * and ends. While tries fail in several ways by turns, another one is logged once a minute at most.
 * Any thread.
 */
#ifndef TARN_MIRRORD_SERVICE_CONNECTION_PROBLEM_H
#define TARN_MIRRORD_SERVICE_CONNECTION_PROBLEM_H

#include <chrono>
#include <string>
#include <utility>

#include "base/mutex.h"

namespace tarn {

class ConnectionProblem {
 public:
  /* `about`: for messages; `gone`: what is logged when there is none any more. */
  ConnectionProblem(std::string about, std::string gone)
      : about_(std::move(about)), gone_(std::move(gone)) {}

  /* "": there is none. */
  void set(const std::string &text) EXCLUDES(mutex_);
  std::string text() const EXCLUDES(mutex_);

 private:
  const std::string about_, gone_;
  mutable Mutex mutex_;
  std::string text_ GUARDED_BY(mutex_) = "not connected yet";
  std::string said_ GUARDED_BY(mutex_) = text_; /* the last one that was not passed over */
  std::chrono::steady_clock::time_point said_at_ GUARDED_BY(mutex_){};
};

}  // namespace tarn

#endif
