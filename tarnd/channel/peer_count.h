/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Limits the connections of unprivileged users, per user and in total: every user may connect, and
 * each connection has a thread, descriptors and memory. Any thread may call.
 */
#ifndef TARND_CHANNEL_PEER_COUNT_H
#define TARND_CHANNEL_PEER_COUNT_H

#include <sys/types.h>

#include <map>
#include <mutex>

namespace tarnd {

class PeerCount {
 public:
  static constexpr int kMaxPerUser = 8;
  static constexpr int kMaxTotal = 64;

  /* Whether the user may have one more connection; if so, call leave() when it ends. Throws
   * std::bad_alloc. */
  bool enter(uid_t uid);
  void leave(uid_t uid);

 private:
  std::mutex mutex_;
  std::map<uid_t, int> per_user_;  // under mutex_
  int total_ = 0;                  // under mutex_
};

}  // namespace tarnd

#endif
