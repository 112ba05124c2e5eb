/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The mounts of this tarnd. Each consists of a mount of type tarn in the kernel in this process,
 * and a FUSE mount on the host's directory of the same path, whose requests go to the former.
 *
 * Any thread may call.
 */
#ifndef TARND_FUSE_MOUNT_H
#define TARND_FUSE_MOUNT_H

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "base/result.h"
#include "base/unique_fd.h"
#include "tarnd/fuse/evictor.h"
#include "tarnd/fuse/fuse_api.h"
#include "tarnd/fuse/listing_cache.h"
#include "tarnd/fuse/lookup_table.h"
#include "tarnd/fuse/readdirplus_advice.h"
#include "tarnd/fuse/session_io.h"
#include "tarnd/fuse/session_loop.h"
#include "tarnd/process/guardian.h"
#include "ukern/door/uk_fs.h"

namespace tarnd {

/* For how many seconds the host may keep what it was told. */
struct CacheTimeouts {
  explicit CacheTimeouts(std::chrono::milliseconds time)
      : entry(std::chrono::duration<double>(time).count()),
        attr(std::max(entry, kLeastAttrTimeout)) {}

  /*
   * Two ticks of the host's clock. That is enough for the system call that looked the name up: it
   * checks permissions with the attributes, and stat() returns them.
   */
  static constexpr double kLeastAttrTimeout = 1e-6;

  double entry; /* a name, or that there is none; 0: the host asks each time */
  double attr;
};

class Mount {
 public:
  /* Makes both mounts, or neither. */
  static tarn::Result<std::unique_ptr<Mount>> make(const std::string &lower,
                                                   const std::string &mountpoint,
                                                   std::chrono::milliseconds cache,
                                                   Guardian *guardian);
  ~Mount() { end(); }
  Mount(const Mount &) = delete;
  Mount &operator=(const Mount &) = delete;

  const std::string &mountpoint() const { return mountpoint_; }
  const CacheTimeouts &timeouts() const { return timeouts_; }

  /* Serves requests until the host has unmounted it, lazily or not, or stop() is called. */
  void serve() { loop_->run(); }
  void stop();
  /* Call it after serve(): drops the host's references and removes both mounts if they exist. */
  void end();
  /* The mount was detached (MNT_DETACH): the path may have another mount, but files may still be
   * open. */
  void set_detached() { detached_ = true; }
  bool detached() const { return detached_; }

  uk_node *root() const { return root_; }
  /* The host's number of a node. */
  fuse_ino_t ino_of(uk_node *node) const {
    return node == root_ ? FUSE_ROOT_ID : reinterpret_cast<fuse_ino_t>(node);
  }
  LookupTable &lookups() { return lookups_; }
  const LookupTable &lookups() const { return lookups_; }
  ListingCache &listings() { return *listings_; }
  ReaddirplusAdvice &readdirplus_advice() { return readdirplus_advice_; }
  SessionIo &session_io() { return session_io_; }
  fuse_session *session() const { return session_; }

 private:
  Mount(const std::string &lower, const std::string &mountpoint, std::chrono::milliseconds cache,
        Guardian *guardian)
      : lower_(lower), mountpoint_(mountpoint), timeouts_(cache), guardian_(guardian) {}
  tarn::Result<void> start();
  tarn::Result<void> remove_dead_mount();
  tarn::Result<void> mount_kernel();
  void unmount_kernel();
  tarn::Result<void> mount_host();
  tarn::Result<void> mount_session();
  void close_session();
  bool end_connection(int fuse_fd);

  const std::string lower_;
  const std::string mountpoint_;
  const CacheTimeouts timeouts_;
  Guardian *const guardian_;
  uk_node *root_ = nullptr;
  LookupTable lookups_;
  ReaddirplusAdvice readdirplus_advice_;
  SessionIo session_io_;
  fuse_session *session_ = nullptr;
  tarn::UniqueFd ended_;  // for end_connection(), opened early: descriptors may run out
  std::unique_ptr<SessionLoop> loop_;
  std::unique_ptr<Evictor> evictor_;
  std::unique_ptr<ListingCache> listings_;
  std::atomic<bool> detached_ = false;
};

class MountTable {
 public:
  explicit MountTable(Guardian *guardian) : guardian_(guardian) {}
  ~MountTable() { unmount_all(); }
  MountTable(const MountTable &) = delete;
  MountTable &operator=(const MountTable &) = delete;

  /* Both paths are absolute. `cache`: for how long the host may keep names and attributes. */
  tarn::Result<void> mount(const std::string &lower, const std::string &mountpoint,
                           std::chrono::milliseconds cache) EXCLUDES(mounting_, mutex_);
  /* Unless lazily: returns when both mounts are gone. */
  tarn::Result<void> unmount(const std::string &mountpoint, Detach how) EXCLUDES(mutex_);
  /* Unmounts all, busy or not, and waits until they are gone. Refuses further mounts. */
  void unmount_all() EXCLUDES(mutex_);

 private:
  void serve(Mount *mount) EXCLUDES(mutex_);
  tarn::Result<void> wait_for_place(const std::string &place) EXCLUDES(mutex_);
  Mount *find_locked(const std::string &mountpoint) const REQUIRES(mutex_);

  Guardian *const guardian_;
  tarn::Mutex mounting_;  // serializes mount(); taken before mutex_
  tarn::Mutex mutex_;
  tarn::Condition changed_;                                        // a mount has gone
  std::vector<std::unique_ptr<Mount>> mounts_ GUARDED_BY(mutex_);  // in mounting order
  bool closed_ GUARDED_BY(mutex_) = false;
};

}  // namespace tarnd

#endif
