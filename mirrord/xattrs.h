/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Extended attributes, access lists among them: reads those that replication copies, and makes the
 * replica's equal to the source's.
 *
 * Copied are user.*, trusted.* (only root sees them), security.* and the POSIX access lists. The
 * attributes that a kernel maintains itself (security.evm, .ima, .selinux) are copied where it
 * allows that, and never removed. security.capability is privilege, like a set-user-id bit: the
 * kernel takes it off when the data changes, and the caller sets it only with the data that it was
 * given to. No object is opened. One thread.
 */
#ifndef TARN_MIRRORD_XATTRS_H
#define TARN_MIRRORD_XATTRS_H

#include <map>
#include <set>
#include <string>
#include <string_view>

#include "base/result.h"

namespace tarn {

inline constexpr char kCapability[] = "security.capability";
inline constexpr char kAccessList[] = "system.posix_acl_access";

/* Values by name. */
using Xattrs = std::map<std::string, std::string>;

/* An object with attributes; the descriptor stays the caller's. */
struct XattrPlace {
  int fd = -1;              /* open for reading or writing; -1: by `path` */
  std::string path = {};    /* below /proc/self/fd */
  bool follow_link = false; /* `path` itself is a link of /proc to the object */
};

/* The copied ones. None if the file system has no extended attributes. */
Result<Xattrs> read_xattrs(const XattrPlace &object);

class XattrCopier {
 public:
  /* What the replica's object has and is to have. */
  struct Difference {
    const Xattrs &have;
    const Xattrs &wanted;
  };
  /* Sets and removes what differs. Goes on after an error and returns the first one. A name space
   * that the replica's file system does not have, or that we may not set, is an error once.
   * `access_list`: it was changed, and perhaps the mode with it. */
  Result<void> copy(const XattrPlace &object, const Difference &difference, bool &access_list);

 private:
  Result<void> refused(const std::string &name, int err);

  std::set<std::string> reported_; /* name spaces */
};

}  // namespace tarn

#endif
