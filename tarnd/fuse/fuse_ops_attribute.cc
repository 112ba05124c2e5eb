// SPDX-License-Identifier: GPL-2.0
// Attributes, extended attributes and the figures of the file system.

#include <cerrno>
#include <cstring>
#include <vector>

#include "tarnd/fuse/fuse_ops.h"
#include "tarnd/fuse/translate.h"

namespace tarnd {

static void reply_stat(fuse_req_t req, int err, const uk_stat &stat) {
  if (err) {
    reply_error(req, err);
    return;
  }
  const struct stat attr = to_stat(stat);
  fuse_reply_attr(req, &attr, mount_of(req)->timeouts().attr);
}

static void op_getattr(fuse_req_t req, fuse_ino_t ino, fuse_file_info *fi) {
  as_caller(req, Need::kBasic, [&] {
    uk_stat stat{};
    const int err = uk_getattr(node_of(req, ino), file_of(fi), &stat);
    reply_stat(req, err, stat);
  });
}

static void op_setattr(fuse_req_t req, fuse_ino_t ino, struct stat *attr, int to_set,
                       fuse_file_info *fi) {
  as_waiting_caller(req, Need::kPath, [&] {
    const uk_stat want = to_uk_stat(*attr);
    uk_stat stat{};
    const int err = uk_setattr(node_of(req, ino), file_of(fi), to_uk_set(to_set), &want, &stat);
    reply_stat(req, err, stat);
  });
}

static void op_statfs(fuse_req_t req, fuse_ino_t ino) {
  as_caller(req, Need::kBasic, [&] {
    struct uk_statfs figures {};
    const int err = uk_statfs(node_of(req, ino), &figures);
    if (err) {
      reply_error(req, err);
      return;
    }
    const struct statvfs reply = to_statvfs(figures);
    fuse_reply_statfs(req, &reply);
  });
}

static void op_setxattr(fuse_req_t req, fuse_ino_t ino, const char *name, const char *value,
                        size_t size, int flags) {
  as_caller(req, Need::kRights,
            [&] { reply_error(req, uk_setxattr(node_of(req, ino), name, value, size, flags)); });
}

// The size when none is offered, else the bytes: getxattr and listxattr alike.
template <typename Get>
static void reply_xattr_bytes(fuse_req_t req, size_t size, Get get) {
  std::vector<char> value(size);
  const long got = get(value.data(), size);
  if (got < 0) {
    reply_error(req, got);
  } else if (size == 0) {
    fuse_reply_xattr(req, static_cast<size_t>(got));
  } else {
    fuse_reply_buf(req, value.data(), static_cast<size_t>(got));
  }
}

// A file system that knows no access lists has none set: an error would be the answer of the host's
// own check, which asks for the list.
static long none_for_unknown(long got, const char *name) {
  const bool is_list = std::strncmp(name, "system.posix_acl_", 17) == 0;
  return got == -EOPNOTSUPP && is_list ? -ENODATA : got;
}

static void op_getxattr(fuse_req_t req, fuse_ino_t ino, const char *name, size_t size) {
  as_caller(req, Need::kRights, [&] {
    reply_xattr_bytes(req, size, [&](char *value, size_t room) {
      return none_for_unknown(uk_getxattr(node_of(req, ino), name, value, room), name);
    });
  });
}

static void op_listxattr(fuse_req_t req, fuse_ino_t ino, size_t size) {
  as_caller(req, Need::kRights, [&] {
    reply_xattr_bytes(req, size, [&](char *list, size_t room) {
      return uk_listxattr(node_of(req, ino), list, room);
    });
  });
}

static void op_removexattr(fuse_req_t req, fuse_ino_t ino, const char *name) {
  as_caller(req, Need::kRights, [&] { reply_error(req, uk_removexattr(node_of(req, ino), name)); });
}

void add_attribute_operations(fuse_lowlevel_ops *ops) {
  ops->getattr = op_getattr;
  ops->setattr = op_setattr;
  ops->statfs = op_statfs;
  ops->setxattr = op_setxattr;
  ops->getxattr = op_getxattr;
  ops->listxattr = op_listxattr;
  ops->removexattr = op_removexattr;
}

}  // namespace tarnd
