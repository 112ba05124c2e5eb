// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/forgetter.h"

#include <sys/resource.h>

#include <chrono>
#include <cstring>
#include <limits>
#include <new>

#include "tarnd/fuse/mount.h"

namespace tarnd {

// Between two rounds, so that what the host forgets has been given back before it is asked for
// more; and what it cannot forget is not asked for over and over.
static constexpr std::chrono::milliseconds kBetweenRounds{1};

// The other descriptors are for open files, for what the kernel in this process keeps, directories
// among it, and for what the host asks for while it is forgetting.
static size_t most_nodes() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY)
    return std::numeric_limits<size_t>::max();
  return limit.rlim_cur / 8 * 3;
}

Forgetter::Forgetter(Mount *mount)
    : mount_(mount), task_(service_identity()), thread_([this] { run(); }) {}

void Forgetter::stop() {
  std::call_once(stopped_, [this] {
    mount_->holdings().close();
    thread_.join();
  });
}

// Without memory there is nothing to be done now; perhaps in the next round.
void Forgetter::run() {
  const size_t most = most_nodes();
  for (bool closed = false; !closed;) {
    try {
      closed = !one_round(most);
    } catch (const std::bad_alloc &) {
    }
    std::this_thread::sleep_for(kBetweenRounds);
  }
}

// False when the mount is closed.
bool Forgetter::one_round(size_t most) {
  const auto nodes = mount_->holdings().wait_for_too_many(most);
  if (!nodes) return false;
  const ActAs act(task_);
  forget(*nodes);
  return true;
}

void Forgetter::forget(const std::vector<uk_node *> &nodes) {
  for (uk_node *node : nodes) {
    uk_node *dir = nullptr;
    char name[256];
    if (uk_node_place(node, &dir, name) == 0) {
      const fuse_ino_t parent =
          dir == mount_->root() ? FUSE_ROOT_ID : reinterpret_cast<fuse_ino_t>(dir);
      fuse_lowlevel_notify_inval_entry(mount_->session(), parent, name, std::strlen(name));
      uk_node_put(dir, 1);
    }
    uk_node_put(node, 1);
  }
}

}  // namespace tarnd
