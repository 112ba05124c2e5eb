// SPDX-License-Identifier: GPL-2.0
// Data of open files.

#include "tarnd/fuse/fuse_ops.h"

namespace tarnd {

static void op_read(fuse_req_t req, fuse_ino_t, size_t size, off_t off, fuse_file_info *fi) {
  as_caller(req, Need::kBasic, [&] {
    char *data = reply_buffer(size);
    const long got = uk_read(file_of(fi), data, size, static_cast<unsigned long long>(off));
    if (got < 0) {
      reply_error(req, got);
    } else {
      fuse_reply_buf(req, data, static_cast<size_t>(got));
    }
  });
}

static void op_write(fuse_req_t req, fuse_ino_t, const char *data, size_t size, off_t off,
                     fuse_file_info *fi) {
  as_waiting_caller(req, Need::kRights, [&] {
    const long done =
        uk_write(file_of(fi), data, size, static_cast<unsigned long long>(off), fi->flags);
    if (done < 0) {
      reply_error(req, done);
    } else {
      fuse_reply_write(req, static_cast<size_t>(done));
    }
  });
}

static void op_fsync(fuse_req_t req, fuse_ino_t, int datasync, fuse_file_info *fi) {
  as_caller(req, Need::kBasic, [&] { reply_error(req, uk_fsync(file_of(fi), datasync)); });
}

void add_read_write_operations(fuse_lowlevel_ops *ops) {
  ops->read = op_read;
  ops->write = op_write;
  ops->fsync = op_fsync;
  ops->fsyncdir = op_fsync;
}

}  // namespace tarnd
