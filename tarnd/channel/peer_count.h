/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Limits the connections of unprivileged users, per user and in total: every user may connect, and
 * each connection has a thread, descriptors and memory. Any thread may call.
 */
#ifndef TARND_CHANNEL_PEER_COUNT_H
#define TARND_CHANNEL_PEER_COUNT_H

#include <sys/types.h>

#include <map>

#include "base/mutex.h"

namespace tarnd {

class PeerCount {
 public:
  static constexpr int kMaxPerUser = 8;
  static constexpr int kMaxTotal = 64;

  /* Whether the user may have one more connection; if so, call leave() when it ends. Throws
   * std::bad_alloc. */
  bool enter(uid_t uid) EXCLUDES(mutex_);
  void leave(uid_t uid) EXCLUDES(mutex_);

 private:
  tarn::Mutex mutex_;
  std::map<uid_t, int> per_user_ GUARDED_BY(mutex_);
  int total_ GUARDED_BY(mutex_) = 0;
};

}  // namespace tarnd

#endif
