// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/caller.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <limits>
#include <string>

#include <fmt/format.h>

#include "ukern/door/uk_fs.h"

namespace tarnd {

using tarn::Mutex;
using tarn::MutexLock;

// Reading a process's rights from /proc takes longer than most requests, and they change rarely.
// The host's own permission check comes first and uses the current ones.
static constexpr std::chrono::milliseconds kRightsTtl{10};

static thread_local CallerTask *worker_task;

// The tasks of all workers: an interrupt may arrive after its worker has ended.
static Mutex all_mutex;
static std::vector<CallerTask *> all_tasks GUARDED_BY(all_mutex);

CallerTask::CallerTask() : task_(Identity()) {
  task_.hide();
  uk_task_set_wait_handler(task_.get(), before_wait, this);
  worker_task = this;
  const MutexLock lock(all_mutex);
  all_tasks.push_back(this);
}

CallerTask::~CallerTask() {
  worker_task = nullptr;
  const MutexLock lock(all_mutex);
  std::erase(all_tasks, this);
}

CallerTask &caller_task() {
  return *worker_task;
}

// Are two paths the same file? A path from another mount namespace may name another file here.
static bool same_file(const char *one, const char *other) {
  struct stat a, b;
  return stat(one, &a) == 0 && stat(other, &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// The path of the caller's program. Returns 0 for requests of the host kernel itself, which have no
// process, and for a program that has another path in our mount namespace.
static long caller_exe(int pid, char *buf, unsigned long size) {
  if (pid == 0) return 0;
  char link[32], path[PATH_MAX];
  std::snprintf(link, sizeof(link), "/proc/%d/exe", pid);
  const ssize_t len = readlink(link, path, sizeof(path) - 1);
  if (len <= 0 || static_cast<unsigned long>(len) > size) return 0;
  path[len] = '\0';
  if (!same_file(link, path)) return 0;
  std::memcpy(buf, path, static_cast<size_t>(len));
  return len;
}

// The pending, unblocked signals of a host thread; bit n - 1 is signal n. Most signals do not end a
// wait for a daemon.
static unsigned long long pending_signals(int tid) {
  std::ifstream status(fmt::format("/proc/{}/status", tid));
  unsigned long long pending = 0, blocked = 0;
  for (std::string name; status >> name;
       status.ignore(std::numeric_limits<std::streamsize>::max(), '\n')) {
    unsigned long long set = 0;
    if (name == "SigPnd:" || name == "ShdPnd:") {
      if (status >> std::hex >> set) pending |= set;
    } else if (name == "SigBlk:") {
      if (status >> std::hex >> set) blocked = set;
    }
  }
  return pending & ~blocked;
}

static Step step_of(Need need) {
  if (need == Need::kLookup) return Step::kLookup;
  return need == Need::kPath ? Step::kLast : Step::kNone;
}

// Steps of 4 ms. A precise clock would cost each request some 40 ns.
static unsigned long tick() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<unsigned long>(now.tv_sec) * 250 +
         static_cast<unsigned long>(now.tv_nsec) / 4'000'000;
}

bool CallerTask::continues_walk(int pid, Need need) {
  return walk_.take(pid, step_of(need), tick());
}

// Requests of the host kernel itself (write-back), and of programs in another pid namespace, have
// pid 0. Only the host's permission check applies to them.
const ProcessRights &CallerTask::rights_of(const fuse_ctx &ctx, Clock::time_point now) {
  static const ProcessRights none{}, all{{}, kAllCapabilities};
  if (ctx.pid == 0) return ctx.uid == 0 ? all : none;
  CachedRights *oldest = &rights_cache_[0];
  for (CachedRights &cached : rights_cache_) {
    if (cached.pid == ctx.pid && cached.uid == ctx.uid && cached.gid == ctx.gid &&
        now < cached.valid_until)
      return cached.rights;
    if (cached.valid_until < oldest->valid_until) oldest = &cached;
  }
  oldest->pid = 0;  // unused, should the next step fail
  oldest->rights = process_rights(ctx.pid);
  oldest->pid = ctx.pid;
  oldest->uid = ctx.uid;
  oldest->gid = ctx.gid;
  oldest->valid_until = now + kRightsTtl;
  return oldest->rights;
}

void CallerTask::become(fuse_req_t req, Need need) {
  const fuse_ctx *ctx = fuse_req_ctx(req);
  uk_request_continues(continues_walk(ctx->pid, need));
  const bool same =
      identity_.pid == ctx->pid && identity_.uid == ctx->uid && identity_.gid == ctx->gid;
  const Clock::time_point now = Clock::now();
  if (same && (need == Need::kBasic || now < rights_valid_until_)) return;

  Identity caller;
  caller.pid = ctx->pid;
  caller.uid = ctx->uid;
  caller.gid = ctx->gid;
  if (need != Need::kBasic) {
    const ProcessRights &rights = rights_of(*ctx, now);
    caller.groups = rights.groups;
    caller.capabilities = rights.capabilities;
  }
  caller.find_exe = caller_exe;
  rights_valid_until_ = need != Need::kBasic ? now + kRightsTtl : Clock::time_point();
  if (caller == identity_) return;
  identity_.pid = -1;  // unused, should the next step fail
  task_.become(caller);
  identity_ = std::move(caller);
}

void CallerTask::interrupted(fuse_req_t req, void *task) {
  const MutexLock all_lock(all_mutex);
  const auto at = std::find(all_tasks.begin(), all_tasks.end(), task);
  if (at == all_tasks.end()) return;
  CallerTask *self = *at;
  const MutexLock lock(self->mutex_);
  if (self->watched_ != req) return;
  self->interrupted_ = true;
  uk_task_interrupt(self->task_.get(), pending_signals(fuse_req_ctx(req)->pid));
}

void CallerTask::reply_due() {
  if (worker_task) worker_task->interruptible_ = nullptr;
}

void CallerTask::before_wait(void *task) {
  auto *self = static_cast<CallerTask *>(task);
  if (self->interruptible_ && !self->watching_) self->watch_interrupts();
}

void CallerTask::watch_interrupts() {
  {
    const MutexLock lock(mutex_);
    watched_ = interruptible_;
  }
  watching_ = true;
  // Not under the lock: libfuse calls back at once if the interrupt has already arrived.
  fuse_req_interrupt_func(interruptible_, interrupted, this);
}

void CallerTask::end_wait() {
  interruptible_ = nullptr;
  if (!watching_) return;
  watching_ = false;
  const MutexLock lock(mutex_);
  watched_ = nullptr;
  if (interrupted_) uk_task_clear_interrupt(task_.get());
  interrupted_ = false;
}

}  // namespace tarnd
