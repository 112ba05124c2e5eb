// SPDX-License-Identifier: GPL-2.0
// Open files and directories.

#include <fcntl.h>

#include <memory>

#include "tarnd/fuse_ops.h"
#include "tarnd/translate.h"

namespace tarnd {

// How the host treats an open file: pages that it has read stay good, and nothing is to be flushed
// when a descriptor is closed, for hostfs holds nothing back.
static void set_file(fuse_file_info *fi, uk_file *file) {
  fi->fh = reinterpret_cast<uint64_t>(file);
  fi->keep_cache = 1;
  fi->noflush = 1;
}

// The file is the host's until it releases it, unless it is not there to take it.
static void reply_opened(fuse_req_t req, fuse_ino_t ino, uk_file *file, fuse_file_info *fi) {
  Mount *mount = mount_of(req);
  mount->holdings().add_file(file, node_of(req, ino));
  fuse_lowlevel_notify_inval_inode(mount->session(), ino, -1, 0);  // the attributes alone
  set_file(fi, file);
  if (fuse_reply_open(req, fi) == -ENOENT) mount->holdings().drop_file(file);
}

static void open_node(fuse_req_t req, fuse_ino_t ino, int flags, fuse_file_info *fi) {
  as_waiting_caller(req, Need::kGroups, [&] {
    uk_file *file = nullptr;
    const int err = uk_open(node_of(req, ino), flags, &file);
    if (err) {
      reply_error(req, err);
    } else {
      reply_opened(req, ino, file, fi);
    }
  });
}

static void op_open(fuse_req_t req, fuse_ino_t ino, fuse_file_info *fi) {
  open_node(req, ino, to_open_flags(fi->flags), fi);
}

static void op_opendir(fuse_req_t req, fuse_ino_t ino, fuse_file_info *fi) {
  open_node(req, ino, to_open_flags(fi->flags) | O_DIRECTORY, fi);
}

static void op_create(fuse_req_t req, fuse_ino_t parent, const char *name, mode_t mode,
                      fuse_file_info *fi) {
  as_waiting_caller(req, Need::kGroups, [&] {
    uk_node *node = nullptr;
    uk_file *file = nullptr;
    uk_stat stat{};
    const int err =
        uk_create(node_of(req, parent), name, fi->flags & ~O_NOCTTY, mode, &node, &file, &stat);
    if (err) {
      reply_error(req, err);
      return;
    }
    Holdings &holdings = mount_of(req)->holdings();
    holdings.add_node(node);
    holdings.add_file(file, node);
    set_file(fi, file);
    const fuse_entry_param entry = to_entry(node, stat, kNotKept);
    if (fuse_reply_create(req, &entry, fi) == -ENOENT) {
      holdings.drop_file(file);
      holdings.drop_node(node, 1);
    }
  });
}

// Room for one answer, the worker's own: it is used again and again, and not cleared.
static char *answer_room(size_t size) {
  static thread_local std::unique_ptr<char[]> room;
  static thread_local size_t room_size;
  if (size > room_size) {
    room_size = 0;
    room.reset(new char[size]);
    room_size = size;
  }
  return room.get();
}

static void op_read(fuse_req_t req, fuse_ino_t, size_t size, off_t off, fuse_file_info *fi) {
  as_caller(req, Need::kBasic, [&] {
    char *data = answer_room(size);
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
  as_waiting_caller(req, Need::kBasic, [&] {
    const long done =
        uk_write_with(file_of(fi), data, size, static_cast<unsigned long long>(off), fi->flags);
    if (done < 0) {
      reply_error(req, done);
    } else {
      fuse_reply_write(req, static_cast<size_t>(done));
    }
  });
}

static void op_flush(fuse_req_t req, fuse_ino_t, fuse_file_info *fi) {
  as_caller(req, Need::kBasic, [&] { reply_error(req, uk_flush(file_of(fi))); });
}

static void op_fsync(fuse_req_t req, fuse_ino_t, int datasync, fuse_file_info *fi) {
  as_caller(req, Need::kBasic, [&] { reply_error(req, uk_fsync(file_of(fi), datasync)); });
}

static void op_release(fuse_req_t req, fuse_ino_t, fuse_file_info *fi) {
  as_anybody([&] {
    mount_of(req)->holdings().drop_file(file_of(fi));
    fuse_reply_err(req, 0);
  });
}

namespace {

// What one readdir reply has room for.
struct Listing {
  fuse_req_t req;
  char *buf;
  size_t size;
  size_t used = 0;
};

}  // namespace

static int add_name(void *arg, const char *name, unsigned long long ino, unsigned type,
                    unsigned long long next) {
  auto *listing = static_cast<Listing *>(arg);
  struct stat attr {};
  attr.st_ino = ino;
  attr.st_mode = to_entry_mode(type);
  const size_t room = listing->size - listing->used;
  const size_t needed = fuse_add_direntry(listing->req, listing->buf + listing->used, room, name,
                                          &attr, static_cast<off_t>(next));
  if (needed > room) return 1;
  listing->used += needed;
  return 0;
}

static void op_readdir(fuse_req_t req, fuse_ino_t, size_t size, off_t off, fuse_file_info *fi) {
  as_caller(req, Need::kBasic, [&] {
    Listing listing{req, answer_room(size), size};
    const int err =
        uk_readdir(file_of(fi), static_cast<unsigned long long>(off), add_name, &listing);
    // Names that were read before an error are handed out first; the next call meets it again.
    if (err && listing.used == 0) {
      reply_error(req, err);
    } else {
      fuse_reply_buf(req, listing.buf, listing.used);
    }
  });
}

void add_file_operations(fuse_lowlevel_ops *ops) {
  ops->open = op_open;
  ops->create = op_create;
  ops->read = op_read;
  ops->write = op_write;
  ops->flush = op_flush;
  ops->fsync = op_fsync;
  ops->release = op_release;
  ops->opendir = op_opendir;
  ops->readdir = op_readdir;
  ops->releasedir = op_release;
  ops->fsyncdir = op_fsync;
}

}  // namespace tarnd
