/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The run directory: where one tarnd has its sockets, its pid file and its lock.
 *
 * The lock is held as long as the object lives, so that two programs never share a directory.
 * Errors are std::runtime_error with a one-line text.
 */
#ifndef TARND_RUN_DIR_H
#define TARND_RUN_DIR_H

#include <filesystem>
#include <string>

#include "tarnd/unique_fd.h"

namespace tarnd {

/* $TARN_RUN_DIR, /run/tarn for root, $XDG_RUNTIME_DIR/tarn, or /tmp/tarn-<uid>, in this order. */
std::filesystem::path default_run_dir();

class RunDir {
 public:
  /* Creates the directory if needed, sees that it is the caller's own, and locks it. */
  explicit RunDir(std::filesystem::path path);

  const std::filesystem::path &path() const { return path_; }
  std::filesystem::path file(const char *name) const { return path_ / name; }

  void write_pid_file() const;
  /* A listening Unix SOCK_SEQPACKET socket that everybody may connect to; replaces a stale one. */
  UniqueFd listen(const char *name) const;
  /* Removes the sockets and the pid file. */
  void clean() const;

 private:
  std::filesystem::path path_;
  UniqueFd lock_;
};

}  // namespace tarnd

#endif
