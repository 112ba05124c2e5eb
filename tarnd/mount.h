/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The mounts of this tarnd. A mount is two: one of type tarn inside the kernel's name space, and a
 * FUSE mount on the host's directory of the same name, whose requests are passed to the first.
 *
 * All calls may come from any thread.
 */
#ifndef TARND_MOUNT_H
#define TARND_MOUNT_H

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "tarnd/fuse_api.h"
#include "tarnd/forgetter.h"
#include "tarnd/guardian.h"
#include "tarnd/holdings.h"
#include "tarnd/session_io.h"
#include "tarnd/session_loop.h"
#include "tarnd/unique_fd.h"
#include "ukern/door/uk_fs.h"

namespace tarnd {

/* An error number, 0 or -errno, and one line that says what failed. */
struct Failure {
  int err = 0;
  std::string text;
};

class MountError : public std::runtime_error {
 public:
  MountError(int err, const std::string &text) : std::runtime_error(text), err_(err) {}
  int err() const { return err_; }

 private:
  int err_;
};

class Mount {
 public:
  /* Mounts on both sides. MountError, with nothing left behind, when one refuses. */
  Mount(std::string lower, std::string mountpoint, Guardian *guardian);
  ~Mount() { end(); }
  Mount(const Mount &) = delete;
  Mount &operator=(const Mount &) = delete;

  const std::string &mountpoint() const { return mountpoint_; }

  /* Serves requests until the host's mount is gone and unused, or stop() was called. */
  void serve() { loop_->run(); }
  void stop();
  /* After serve(): closes what the host had open, takes its mount down if it is still up, then the
   * kernel's. */
  void end();
  /* The host's mount point is not ours any more, though the mount may still be in use. */
  void set_detached() { detached_ = true; }
  bool detached() const { return detached_; }

  uk_node *root() const { return root_; }
  Holdings &holdings() { return holdings_; }
  const Holdings &holdings() const { return holdings_; }
  SessionIo &session_io() { return session_io_; }
  fuse_session *session() const { return session_; }

 private:
  void take_over();
  void mount_kernel();
  void unmount_kernel();
  void mount_host();
  void close_session();
  bool end_connection(int fuse_fd);

  const std::string lower_;
  const std::string mountpoint_;
  Guardian *const guardian_;
  uk_node *root_ = nullptr;
  Holdings holdings_;
  SessionIo session_io_;
  fuse_session *session_ = nullptr;
  UniqueFd ended_;  // what end_connection() needs: there may be no descriptor left then
  std::unique_ptr<SessionLoop> loop_;
  std::unique_ptr<Forgetter> forgetter_;
  std::atomic<bool> detached_ = false;
};

class MountTable {
 public:
  explicit MountTable(Guardian *guardian) : guardian_(guardian) {}
  ~MountTable() { unmount_all(); }
  MountTable(const MountTable &) = delete;
  MountTable &operator=(const MountTable &) = delete;

  /* Both paths absolute. */
  Failure mount(const std::string &lower, const std::string &mountpoint);
  /* Not lazily: returns when the mount is gone on both sides. */
  Failure unmount(const std::string &mountpoint, Detach how);
  /* Unmounts everything, busy or not, and returns when it is gone. No mount is added after it. */
  void unmount_all();

 private:
  void serve(Mount *mount);
  Failure wait_for_place(const std::string &place);
  Mount *find_locked(const std::string &mountpoint) const;

  Guardian *const guardian_;
  std::mutex mounting_;  // one mount() at a time; taken before mutex_
  std::mutex mutex_;
  std::condition_variable changed_;             // a mount has gone
  std::vector<std::unique_ptr<Mount>> mounts_;  // in the order of mounting; under mutex_
  bool closed_ = false;                         // under mutex_
};

}  // namespace tarnd

#endif
