// SPDX-License-Identifier: GPL-2.0
#include "tarnd/channel/peer_count.h"

namespace tarnd {

bool PeerCount::enter(uid_t uid) {
  const std::lock_guard lock(mutex_);
  if (of_all_ >= kMostOfAll) return false;
  int &count = of_one_[uid];
  if (count >= kMostOfOne) return false;
  count++;
  of_all_++;
  return true;
}

void PeerCount::leave(uid_t uid) {
  const std::lock_guard lock(mutex_);
  const auto at = of_one_.find(uid);
  if (at == of_one_.end()) return;
  if (--at->second == 0) of_one_.erase(at);
  of_all_--;
}

}  // namespace tarnd
