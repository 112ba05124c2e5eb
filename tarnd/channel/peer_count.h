/* SPDX-License-Identifier: GPL-2.0 */
/*
 * How many connections each user has. Each costs a thread, descriptors and memory, and anybody may
 * connect: users other than those who may configure this program get a few each, and not all
 * together more than it can bear.
 *
 * Any thread may call.
 */
#ifndef TARND_CHANNEL_PEER_COUNT_H
#define TARND_CHANNEL_PEER_COUNT_H

#include <sys/types.h>

#include <map>
#include <mutex>

namespace tarnd {

class PeerCount {
 public:
  static constexpr int kMostOfOne = 8;
  static constexpr int kMostOfAll = 64;

  /* Whether that user may have one more; if so, leave() is due when it ends. Throws
   * std::bad_alloc. */
  bool enter(uid_t uid);
  void leave(uid_t uid);

 private:
  std::mutex mutex_;
  std::map<uid_t, int> of_one_;  // under mutex_
  int of_all_ = 0;               // under mutex_
};

}  // namespace tarnd

#endif
