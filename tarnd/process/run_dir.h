/* SPDX-License-Identifier: GPL-2.0 */
/*
 * tarnd's side of its run directory, with its sockets, pid file and lock.
 *
 * The lock is held while the object exists, so that no two tarnds share a directory.
 */
#ifndef TARND_PROCESS_RUN_DIR_H
#define TARND_PROCESS_RUN_DIR_H

#include <string>

#include "base/result.h"
#include "base/run_dir.h"
#include "base/unique_fd.h"

namespace tarnd {

class RunDir {
 public:
  /* Creates the directory if needed, checks that the caller owns it, and locks it. Errors: -EBUSY
   * when another tarnd has the lock, -EPERM when another user owns it. */
  static tarn::Result<RunDir> open(const std::string &path);

  const std::string &path() const { return path_; }
  std::string file(const std::string &name) const { return path_ + '/' + name; }

  tarn::Result<void> write_pid_file() const;
  tarn::Result<tarn::UniqueFd> listen(const std::string &name) const {
    return tarn::listen_socket(path_, name);
  }
  /* Removes the sockets and the pid file. */
  void clean() const;

 private:
  RunDir(std::string path, tarn::UniqueFd lock) : path_(std::move(path)), lock_(std::move(lock)) {}

  std::string path_;
  tarn::UniqueFd lock_;
};

}  // namespace tarnd

#endif
