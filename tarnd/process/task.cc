// SPDX-License-Identifier: GPL-2.0
#include "tarnd/process/task.h"

#include <unistd.h>

#include <new>

namespace tarnd {

uk_cred to_cred(const Identity &identity) {
  uk_cred cred{};
  cred.pid = identity.pid;
  cred.uid = identity.uid;
  cred.gid = identity.gid;
  cred.ngroups = static_cast<unsigned>(identity.groups.size());
  cred.groups = identity.groups.data();
  cred.cap_effective = identity.capabilities;
  cred.find_exe = identity.find_exe;
  return cred;
}

Identity service_identity() {
  Identity self;
  self.pid = getpid();
  self.uid = geteuid();
  self.gid = getegid();
  self.capabilities = kAllCapabilities;
  const int count = getgroups(0, nullptr);
  if (count > 0) {
    std::vector<gid_t> groups(static_cast<size_t>(count));
    const int got = getgroups(count, groups.data());
    if (got > 0) self.groups.assign(groups.begin(), groups.begin() + got);
  }
  return self;
}

Task::Task(const Identity &identity) {
  const uk_cred cred = to_cred(identity);
  task_ = uk_task_new(&cred);
  if (!task_) throw std::bad_alloc();
}

Task::~Task() {
  uk_task_put(task_);
}

void Task::become(const Identity &identity) {
  const uk_cred cred = to_cred(identity);
  if (uk_task_set_cred(task_, &cred) != 0) throw std::bad_alloc();
}

}  // namespace tarnd
