/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The mounts of this tarnd. A mount is two: one of type tarn inside the kernel's name space, and a
 * FUSE mount on the host's directory of the same name, whose requests are passed to the first.
 *
 * All calls may come from any thread.
 */
#ifndef TARND_FUSE_MOUNT_H
#define TARND_FUSE_MOUNT_H

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/result.h"
#include "base/unique_fd.h"
#include "tarnd/fuse/forgetter.h"
#include "tarnd/fuse/fuse_api.h"
#include "tarnd/fuse/holdings.h"
#include "tarnd/fuse/session_io.h"
#include "tarnd/fuse/session_loop.h"
#include "tarnd/process/guardian.h"
#include "ukern/door/uk_fs.h"

namespace tarnd {

class Mount {
 public:
  /* Mounts on both sides; when one refuses, nothing is left behind. */
  static tarn::Result<std::unique_ptr<Mount>> make(const std::string &lower,
                                                   const std::string &mountpoint,
                                                   Guardian *guardian);
  ~Mount() { end(); }
  Mount(const Mount &) = delete;
  Mount &operator=(const Mount &) = delete;

  const std::string &mountpoint() const { return mountpoint_; }

  /* Serves requests until the host's mount is gone and unused, or stop() was called. */
  void serve() { loop_->run(); }
  void stop();
  /* After serve(), if the mount got so far: closes what the host had open, takes its mount down if
   * it is still up, then the kernel's. */
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
  Mount(const std::string &lower, const std::string &mountpoint, Guardian *guardian)
      : lower_(lower), mountpoint_(mountpoint), guardian_(guardian) {}
  tarn::Result<void> start();
  tarn::Result<void> take_over();
  tarn::Result<void> mount_kernel();
  void unmount_kernel();
  tarn::Result<void> mount_host();
  tarn::Result<void> mount_session();
  void close_session();
  bool end_connection(int fuse_fd);

  const std::string lower_;
  const std::string mountpoint_;
  Guardian *const guardian_;
  uk_node *root_ = nullptr;
  Holdings holdings_;
  SessionIo session_io_;
  fuse_session *session_ = nullptr;
  tarn::UniqueFd ended_;  // what end_connection() needs: there may be no descriptor left then
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
  tarn::Result<void> mount(const std::string &lower, const std::string &mountpoint);
  /* Not lazily: returns when the mount is gone on both sides. */
  tarn::Result<void> unmount(const std::string &mountpoint, Detach how);
  /* Unmounts everything, busy or not, and returns when it is gone. No mount is added after it. */
  void unmount_all();

 private:
  void serve(Mount *mount);
  tarn::Result<void> wait_for_place(const std::string &place);
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
