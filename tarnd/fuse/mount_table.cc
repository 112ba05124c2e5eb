// SPDX-License-Identifier: GPL-2.0
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <thread>

#include "base/print_error.h"
#include "tarnd/fuse/mount.h"

namespace tarnd {

using tarn::Condition;
using tarn::Error;
using tarn::MutexLock;
using tarn::Result;
using tarn::system_error;

// Time limit of the clean-up after the host has unmounted.
static constexpr std::chrono::seconds kUnmountLimit{60};
// How long a mount on the same path waits for a detached one, which programs may still use.
static constexpr std::chrono::seconds kPlaceLimit{10};

// Normalizes a path without a look-up, which could hang in a mount that does not answer.
static std::string normal(const std::string &path) {
  std::string text = std::filesystem::path(path).lexically_normal().string();
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return text;
}

Mount *MountTable::find_locked(const std::string &mountpoint) const {
  for (const auto &mount : mounts_)
    if (mount->mountpoint() == mountpoint) return mount.get();
  return nullptr;
}

// A mount stays in the table after the host has unmounted it, until its clean-up ends.
Result<void> MountTable::wait_for_place(const std::string &place) {
  const bool on_host = is_tarn_mount(place);
  MutexLock lock(mutex_);
  if (closed_) return system_error(ESHUTDOWN, "cannot mount on " + place);
  if (!find_locked(place)) return {};
  if (on_host) return system_error(EBUSY, place + " is mounted already");
  const auto limit = Condition::Clock::now() + kPlaceLimit;
  while (!closed_ && find_locked(place))
    if (!changed_.wait_until(lock, limit)) break;
  if (closed_) return system_error(ESHUTDOWN, "cannot mount on " + place);
  if (!find_locked(place)) return {};
  return system_error(EBUSY,
                      place + " is unmounted, but programs still use what was mounted there");
}

Result<void> MountTable::mount(const std::string &lower, const std::string &mountpoint,
                               std::chrono::milliseconds cache) {
  const std::string place = normal(mountpoint);
  const MutexLock one_at_a_time(mounting_);
  if (auto taken = wait_for_place(place); !taken) return taken;
  try {
    auto mount = Mount::make(normal(lower), place, cache, guardian_);
    if (!mount) return mount.error();
    const MutexLock lock(mutex_);
    Mount *added = mount->get();
    mounts_.push_back(std::move(*mount));
    try {
      std::thread([this, added] { serve(added); }).detach();
    } catch (...) {
      mounts_.pop_back();
      throw;
    }
  } catch (const std::exception &e) {
    return Error{-EAGAIN, e.what()};
  }
  return {};
}

void MountTable::serve(Mount *mount) {
  try {
    mount->serve();
  } catch (const std::exception &e) {
    tarn::print_error("tarnd: {}: {}\n", mount->mountpoint(), e.what());
  }
  // Not under the lock: the clean-up may take long. The mount stays in the table until then, so
  // that its mount point counts as taken.
  mount->end();
  const MutexLock lock(mutex_);
  std::erase_if(mounts_, [mount](const auto &each) { return each.get() == mount; });
  changed_.notify_all();
}

Result<void> MountTable::unmount(const std::string &mountpoint, Detach how) {
  const std::string place = normal(mountpoint);
  MutexLock lock(mutex_);
  const Mount *mount = find_locked(place);
  const bool ours = mount && !mount->detached();

  // Not under the lock: to resolve the path the host may send requests here, and an ending mount
  // takes the lock.
  lock.unlock();
  if (!ours && is_dead_tarn_mount(place))
    how = Detach::kLazily;
  else if (!ours)
    return system_error(EINVAL, place + " is not a mount of tarn");
  const int err = unmount_host(place, how);
  lock.lock();
  if (err == -EBUSY && how == Detach::kOnlyIdle)
    return system_error(-err, "cannot unmount " + place +
                                  ", which programs use: end them, or unmount it with --lazy");
  if (err) return system_error(-err, "cannot unmount " + place);
  if (how == Detach::kLazily) {
    if (Mount *left = ours ? find_locked(place) : nullptr) left->set_detached();
    return {};
  }
  const auto limit = Condition::Clock::now() + kUnmountLimit;
  while (find_locked(place))
    if (!changed_.wait_until(lock, limit)) break;
  if (!find_locked(place)) return {};
  return system_error(ETIMEDOUT, place + " is unmounted, but its end is not reached");
}

void MountTable::unmount_all() {
  MutexLock lock(mutex_);
  closed_ = true;
  // In reverse order: a mount may lie on or above an earlier one.
  while (!mounts_.empty()) {
    Mount *mount = mounts_.back().get();
    const std::string place = mount->mountpoint();
    const bool detached = mount->detached();
    lock.unlock();
    // A busy mount is aborted: programs that use it get errors.
    const bool ended = !detached && unmount_host(place, Detach::kOnlyIdle) == 0;
    lock.lock();
    Mount *left = find_locked(place);
    if (left && !ended) left->stop();
    while (find_locked(place)) changed_.wait(lock);
  }
}

}  // namespace tarnd
