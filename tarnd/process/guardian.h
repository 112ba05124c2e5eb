/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A small process that cleans up after a killed tarnd. When its socket to tarnd breaks, it aborts
 * the pending requests of all watched mounts, so that no program hangs. The mounts stay and return
 * errors until they are unmounted or replaced: without them programs would write to the bare
 * directory below, and nothing would be captured. The process is started before tarnd's first
 * thread and ends with tarnd.
 */
#ifndef TARND_PROCESS_GUARDIAN_H
#define TARND_PROCESS_GUARDIAN_H

#include <sys/types.h>

#include <atomic>
#include <memory>
#include <string>

#include "base/result.h"
#include "base/unique_fd.h"

namespace tarnd {

class Guardian {
 public:
  /* Forks. */
  static tarn::Result<std::unique_ptr<Guardian>> start();
  ~Guardian();
  Guardian(const Guardian &) = delete;
  Guardian &operator=(const Guardian &) = delete;

  /* Any thread. The first call after the process has ended prints a warning. */
  void watch(const std::string &mountpoint);
  void forget(const std::string &mountpoint);

 private:
  Guardian(tarn::UniqueFd socket, pid_t pid) : socket_(std::move(socket)), pid_(pid) {}
  void send(char command, const std::string &mountpoint);

  tarn::UniqueFd socket_;
  const pid_t pid_;
  std::atomic<bool> loss_reported_ = false;
};

enum class Detach { kOnlyIdle, kLazily };

/* Is the topmost mount there of type fuse.tarn? */
bool is_tarn_mount(const std::string &mountpoint);
/* And was its tarnd killed? */
bool is_dead_tarn_mount(const std::string &mountpoint);

/* Unmounts a FUSE mount on the host: umount2 for root, libfuse's helper for others. 0 or -errno;
 * -EBUSY when it is in use. */
int unmount_host(const std::string &mountpoint, Detach how);

}  // namespace tarnd

#endif
