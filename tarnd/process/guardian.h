/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A small process that stands beside tarnd and sees to the mounts that tarnd leaves behind when it
 * is killed: when the line to it breaks, requests that nobody answers are ended on every mount
 * point that it still knows. The mounts stay, and refuse whatever is tried there, until the next
 * tarnd is to mount there or somebody unmounts them; otherwise programs would write to the bare
 * directory below, unseen. The process is started before tarnd's first thread and ends with tarnd.
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

  /* Any thread. The first that finds the process gone says so on stderr. */
  void watch(const std::string &mountpoint);
  void forget(const std::string &mountpoint);

 private:
  Guardian(tarn::UniqueFd line, pid_t pid) : line_(std::move(line)), pid_(pid) {}
  void tell(char what, const std::string &mountpoint);

  tarn::UniqueFd line_;
  const pid_t pid_;
  std::atomic<bool> loss_reported_ = false;
};

enum class Detach { kOnlyIdle, kLazily };

/* Whether the topmost mount on that place is one of ours. Somebody may have mounted something else
 * since. */
bool is_tarn_mount(const std::string &mountpoint);
/* Whether it is one that a killed tarnd has left. */
bool is_dead_tarn_mount(const std::string &mountpoint);

/*
 * Takes a FUSE mount out of the host's name space: umount2 for root, the helper of libfuse
 * otherwise. 0 or -errno; -EBUSY when it is in use. Safe in a process without threads only as far
 * as fork is.
 */
int unmount_host(const std::string &mountpoint, Detach how);

}  // namespace tarnd

#endif
