/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Records which process is the daemon: the module does not tell, and a new registration silently
 * replaces the old one. A daemon of libtarn holds an exclusive flock on the file "daemon.lock" in
 * the run directory, which contains its process id. The kernel releases the lock when the process
 * ends.
 *
 * To take over, a program replaces the file with a new one that it has locked. When the old daemon
 * ends, it sees that the file is not its own and does not unregister the new one.
 */
#ifndef TARN_CLIENT_DAEMON_LOCK_H
#define TARN_CLIENT_DAEMON_LOCK_H

#include <sys/types.h>

#include <optional>
#include <string>

#include "base/result.h"
#include "base/unique_fd.h"
#include "client/site.h"

namespace tarn {

enum class Claim { kRefuseIfTaken, kTakeOver };

class DaemonLock {
 public:
  /* With a module in the kernel, makes the run directory if it is missing. Errors: -EBUSY when
   * another process holds the lock (Claim::kRefuseIfTaken). */
  static Result<DaemonLock> take(const Site &site, Claim claim);

  /* Takes over the lock of an earlier process, by its open file, which has stayed locked. Nothing
   * if another daemon has taken over, or it is of another site. */
  static std::optional<DaemonLock> inherit(const Site &site, UniqueFd file);

  /* The open file that is locked. */
  int fd() const { return file_.get(); }

  /* False once another process has taken over. */
  bool still_ours() const;

 private:
  DaemonLock(UniqueFd file, std::string path) : file_(std::move(file)), path_(std::move(path)) {}

  UniqueFd file_;
  std::string path_;
};

/* The process id of the registered daemon, if there is one. */
Result<std::optional<pid_t>> registered_daemon(const Site &site);

}  // namespace tarn

#endif
