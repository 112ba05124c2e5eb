// SPDX-License-Identifier: GPL-2.0
#include "mirrord/verify/side_thread.h"

#include <system_error>

namespace tarn {

Result<std::unique_ptr<SideThread>> SideThread::start() {
  try {
    return std::unique_ptr<SideThread>(new SideThread);
  } catch (const std::system_error &error) {
    return system_error(error.code().value(), "cannot start a thread to read the target");
  }
}

SideThread::~SideThread() {
  {
    const MutexLock lock(mutex_);
    end_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void SideThread::both(const std::function<void()> &here, const std::function<void()> &beside) {
  {
    const MutexLock lock(mutex_);
    work_ = &beside;
  }
  changed_.notify_all();
  here();
  MutexLock lock(mutex_);
  while (work_) changed_.wait(lock);
}

void SideThread::run() {
  MutexLock lock(mutex_);
  for (;;) {
    while (!work_ && !end_) changed_.wait(lock);
    if (end_) return;
    const std::function<void()> &work = *work_;
    lock.unlock();
    work();
    lock.lock();
    work_ = nullptr;
    changed_.notify_all();
  }
}

}  // namespace tarn
