// SPDX-License-Identifier: GPL-2.0
#include "tarnd/channel/peer_count.h"

namespace tarnd {

bool PeerCount::enter(uid_t uid) {
  const tarn::MutexLock lock(mutex_);
  if (total_ >= kMaxTotal) return false;
  int &count = per_user_[uid];
  if (count >= kMaxPerUser) return false;
  count++;
  total_++;
  return true;
}

void PeerCount::leave(uid_t uid) {
  const tarn::MutexLock lock(mutex_);
  const auto at = per_user_.find(uid);
  if (at == per_user_.end()) return;
  if (--at->second == 0) per_user_.erase(at);
  total_--;
}

}  // namespace tarnd
