/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The control channel: serves the requests of ox_ctl.h on one connection.
 *
 * Socket options run as the peer, and the module checks its capabilities. Mounting and unmounting
 * need a privileged peer. Every user may read the log and the mount table.
 */
#ifndef TARND_CHANNEL_CONTROL_H
#define TARND_CHANNEL_CONTROL_H

#include <atomic>

#include "tarnd/fuse/mount.h"
#include "tarnd/process/task.h"

namespace tarnd {

class Control {
 public:
  explicit Control(MountTable *mounts) : mounts_(mounts) {}

  /* Serves until the peer hangs up or the connection is shut down. Any number of connections at a
   * time. */
  void serve(int connection, const Identity &peer);
  /* Ends blocked requests within a moment. */
  void stop() { stopping_ = true; }

 private:
  MountTable *const mounts_;
  std::atomic<bool> stopping_ = false;
};

/* Makes "LOWER MOUNTPOINT OPTIONS\n" from a line of the kernel's mount table; "" for other
 * types. */
std::string to_mount_line(const std::string &line);

}  // namespace tarnd

#endif
