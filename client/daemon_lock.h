/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Who is the daemon? The module itself tells nobody, and takes any new one without a word to the
 * old. So whoever registers through libtarn holds the file "daemon.lock" in the run directory under
 * an exclusive lock of its open file (flock); its text is the holder's process id. The lock goes
 * with the process, however it ends.
 *
 * To take over, a program puts a new, locked file in the old one's place. The old holder notices
 * that the file is no longer its own when it leaves, and then does not tell the module to forget
 * the daemon, which is another by now.
 */
#ifndef TARN_CLIENT_DAEMON_LOCK_H
#define TARN_CLIENT_DAEMON_LOCK_H

#include <sys/types.h>

#include <optional>
#include <string>

#include "base/result.h"
#include "client/site.h"
#include "base/unique_fd.h"

namespace tarn {

enum class Claim { kRefuseIfTaken, kTakeOver };

class DaemonLock {
 public:
  /* Makes the site's directory, if the module is in the kernel and nobody has made it. Errors:
   * -EBUSY when another holds the lock (Claim::kRefuseIfTaken). */
  static Result<DaemonLock> take(const Site &site, Claim claim);

  /* False once another has taken over. */
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
