// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/evictor.h"

#include <sys/resource.h>

#include <chrono>
#include <cstring>
#include <limits>
#include <new>

#include "tarnd/fuse/mount.h"

namespace tarnd {

// Pause between two rounds: the host's forget requests take a moment to arrive, and a dentry that
// it cannot drop must not cause a busy loop.
static constexpr std::chrono::milliseconds kRoundInterval{1};

// Three eighths of the descriptor limit. The rest is for open files, directories, and look-ups
// during a round.
static size_t node_limit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY)
    return std::numeric_limits<size_t>::max();
  return limit.rlim_cur / 8 * 3;
}

Evictor::Evictor(Mount *mount)
    : mount_(mount), task_(service_identity()), thread_([this] { run(); }) {}

void Evictor::stop() {
  std::call_once(stopped_, [this] {
    mount_->lookups().close();
    thread_.join();
  });
}

void Evictor::run() {
  const size_t limit = node_limit();
  for (bool closed = false; !closed;) {
    try {
      closed = !evict_some(limit);
    } catch (const std::bad_alloc &) {
      // retried in the next round
    }
    std::this_thread::sleep_for(kRoundInterval);
  }
}

// Returns false when the mount is closed.
bool Evictor::evict_some(size_t limit) {
  const auto nodes = mount_->lookups().wait_for_eviction(limit);
  if (!nodes) return false;
  const ActAs act(task_);
  invalidate(*nodes);
  return true;
}

void Evictor::invalidate(const std::vector<uk_node *> &nodes) {
  for (uk_node *node : nodes) {
    uk_node *dir = nullptr;
    char name[256];
    if (uk_node_place(node, &dir, name) == 0) {
      fuse_lowlevel_notify_inval_entry(mount_->session(), mount_->ino_of(dir), name,
                                       std::strlen(name));
      uk_node_put(dir, 1);
    }
    uk_node_put(node, 1);
  }
}

}  // namespace tarnd
