// SPDX-License-Identifier: GPL-2.0
#include "tarnd/caller.h"

#include <climits>
#include <unistd.h>

#include <new>

namespace tarnd {

static thread_local Task *worker_task;

CallerTask::CallerTask() : task_(Identity()) {
  worker_task = &task_;
}

CallerTask::~CallerTask() {
  worker_task = nullptr;
}

static std::vector<unsigned> caller_groups(fuse_req_t req) {
  std::vector<gid_t> groups(32);
  for (;;) {
    const int count = fuse_req_getgroups(req, static_cast<int>(groups.size()), groups.data());
    if (count < 0) return {};  // the process is gone already
    if (static_cast<size_t>(count) <= groups.size())
      return {groups.begin(), groups.begin() + count};
    groups.resize(static_cast<size_t>(count));
  }
}

static std::string caller_exe(int pid) {
  const std::string link = "/proc/" + std::to_string(pid) + "/exe";
  char path[PATH_MAX];
  const ssize_t len = readlink(link.c_str(), path, sizeof(path));
  return len > 0 ? std::string(path, static_cast<size_t>(len)) : std::string();
}

static Identity caller_identity(fuse_req_t req, Need need) {
  const fuse_ctx *ctx = fuse_req_ctx(req);
  Identity caller;
  caller.pid = ctx->pid;
  caller.uid = ctx->uid;
  caller.gid = ctx->gid;
  caller.capabilities = ctx->uid == 0 ? kAllCapabilities : 0;
  // What the host kernel does by itself (write-back) has no process; root needs no group to be let
  // through.
  const bool has_process = ctx->pid != 0;
  if (need != Need::kBasic && has_process && ctx->uid != 0) caller.groups = caller_groups(req);
  if (need == Need::kGroupsAndExe && has_process) caller.exe = caller_exe(ctx->pid);
  return caller;
}

Caller::Caller(fuse_req_t req, Need need) : act_(*worker_task) {
  worker_task->become(caller_identity(req, need));
}

Caller::~Caller() {
  try {
    worker_task->become(Identity());
  } catch (const std::bad_alloc &) {
    // It stays who it was until the next caller comes.
  }
}

}  // namespace tarnd
