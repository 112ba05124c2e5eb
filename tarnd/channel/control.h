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

  /* Until the peer hangs up or the connection is shut down. Any number of connections at once. */
  void serve(int connection, const Identity &peer);
  /* Ends waiting requests soon. */
  void stop() { stopping_ = true; }

 private:
  MountTable *const mounts_;
  std::atomic<bool> stopping_ = false;
};

/* "LOWER MOUNTPOINT OPTIONS" out of one line of the kernel's mount table; empty for other types. */
std::string to_mount_line(const std::string &line);

}  // namespace tarnd

#endif
