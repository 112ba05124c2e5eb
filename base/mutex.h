/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The standard library's mutex and condition variable with clang's thread-safety attributes: clang
 * refuses code that touches guarded data without the lock. Other compilers see no attributes.
 *
 * Data is marked GUARDED_BY(its mutex). A function that needs the lock held ends in _locked and is
 * marked REQUIRES; one that takes the lock is marked EXCLUDES. The analysis does not follow a
 * pointer or an iterator that was obtained under the lock, and skips constructors and destructors.
 */
#ifndef TARN_BASE_MUTEX_H
#define TARN_BASE_MUTEX_H

#include <chrono>
#include <condition_variable>
#include <mutex>

#ifdef __clang__
#define TARN_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define TARN_THREAD_ATTRIBUTE(x)
#endif

#define CAPABILITY(name) TARN_THREAD_ATTRIBUTE(capability(name))
#define SCOPED_CAPABILITY TARN_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(mutex) TARN_THREAD_ATTRIBUTE(guarded_by(mutex))
#define REQUIRES(...) TARN_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) TARN_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) TARN_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) TARN_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))

namespace tarn {

/* Locked through MutexLock only. */
class CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex &) = delete;
  Mutex &operator=(const Mutex &) = delete;

 private:
  friend class MutexLock;
  std::mutex mutex_;
};

/* Holds the mutex while it exists, except between unlock() and lock(). */
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex &mutex) ACQUIRE(mutex) : lock_(mutex.mutex_) {}
  ~MutexLock() RELEASE() {}
  MutexLock(const MutexLock &) = delete;
  MutexLock &operator=(const MutexLock &) = delete;

  void unlock() RELEASE() { lock_.unlock(); }
  void lock() ACQUIRE() { lock_.lock(); }

 private:
  friend class Condition;
  std::unique_lock<std::mutex> lock_;
};

/*
 * A wait may return without a notification: call it in a loop over the condition. The standard
 * waits with a predicate are missing, as the analysis does not know that the lock is held in the
 * predicate.
 */
class Condition {
 public:
  using Clock = std::chrono::steady_clock;

  void wait(MutexLock &lock) { condition_.wait(lock.lock_); }
  void wait_for(MutexLock &lock, Clock::duration time) { condition_.wait_for(lock.lock_, time); }
  /* False at the timeout. */
  [[nodiscard]] bool wait_until(MutexLock &lock, Clock::time_point time) {
    return condition_.wait_until(lock.lock_, time) == std::cv_status::no_timeout;
  }
  void notify_one() { condition_.notify_one(); }
  void notify_all() { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

}  // namespace tarn

#endif
