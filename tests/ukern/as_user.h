/* SPDX-License-Identifier: GPL-2.0 */
#ifndef TESTS_UKERN_AS_USER_H
#define TESTS_UKERN_AS_USER_H

#include "module/kernel.h"

/* The task is an unprivileged user for a scope. */
class as_user {
 public:
  as_user(uid_t uid, gid_t gid)
      : uid_(current->fsuid), gid_(current->fsgid), cap_(current->cap_effective) {
    current->fsuid = uid;
    current->fsgid = gid;
    cap_clear(current->cap_effective);
  }
  ~as_user() {
    current->fsuid = uid_;
    current->fsgid = gid_;
    current->cap_effective = cap_;
  }
  as_user(const as_user &) = delete;
  as_user &operator=(const as_user &) = delete;

 private:
  uid_t uid_;
  gid_t gid_;
  kernel_cap_t cap_;
};

#endif
