/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The run directory from inside: where one tarnd has its sockets, its pid file and its lock.
 *
 * The lock is held as long as the object lives, so that two programs never share a directory.
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
  /* Creates the directory if needed, sees that it is the caller's own, and locks it. Errors: -EBUSY
   * when another tarnd has it, -EPERM when it is another user's. */
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
