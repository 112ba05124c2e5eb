// SPDX-License-Identifier: GPL-2.0
// Open files and directories.

#include <fcntl.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "tarnd/fuse/fuse_ops.h"
#include "tarnd/fuse/translate.h"

namespace tarnd {

static void register_open(Mount *mount, uk_file *file, uk_node *node, fuse_file_info *fi) {
  mount->lookups().add_open_file(file, node);
  fi->fh = reinterpret_cast<uint64_t>(file);
  fi->keep_cache = 1;  // the host keeps the page cache of an earlier open
  fi->noflush = 1;     // close() has nothing to write back here
}

// Releases the file at once if the reply cannot be delivered.
static void reply_opened(fuse_req_t req, fuse_ino_t ino, uk_file *file, fuse_file_info *fi) {
  Mount *mount = mount_of(req);
  register_open(mount, file, node_of(req, ino), fi);
  if (fuse_reply_open(req, fi) == -ENOENT) mount->lookups().release(file);
}

static void open_node(fuse_req_t req, fuse_ino_t ino, int flags, fuse_file_info *fi) {
  as_waiting_caller(req, Need::kPath, [&] {
    uk_file *file = nullptr;
    const int err = may_open_more(req) ? uk_open(node_of(req, ino), flags, &file) : -ENFILE;
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
  // Not kPath: the kernel looks up again whether the name is free.
  as_waiting_caller(req, Need::kRights, [&] {
    uk_node *node = nullptr;
    uk_file *file = nullptr;
    uk_stat stat{};
    const int flags = fi->flags & ~O_NOCTTY;
    const int err = may_open_more(req)
                        ? uk_create(node_of(req, parent), name, flags, mode, &node, &file, &stat)
                        : -ENFILE;
    if (err) {
      reply_error(req, err);
      return;
    }
    Mount *mount = mount_of(req);
    LookupTable &lookups = mount->lookups();
    lookups.add_lookup(node, Kind::kFile);
    register_open(mount, file, node, fi);
    const fuse_entry_param entry = to_entry(node, stat);
    if (fuse_reply_create(req, &entry, fi) == -ENOENT) {
      lookups.release(file);
      lookups.forget(node, 1);
    }
  });
}

// One reply buffer per worker, reused without clearing.
static char *reply_buffer(size_t size) {
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
  for_release([&] {
    mount_of(req)->lookups().release(file_of(fi));
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
    Listing listing{req, reply_buffer(size), size};
    const int err =
        uk_readdir(file_of(fi), static_cast<unsigned long long>(off), add_name, &listing);
    // Names that were read before an error are returned first; the next call gets the error again.
    if (err && listing.used == 0) {
      reply_error(req, err);
    } else {
      fuse_reply_buf(req, listing.buf, listing.used);
    }
  });
}

namespace {

// A name of a listing, before its look-up.
struct Name {
  std::string text;
  unsigned long long ino;
  unsigned type;
  unsigned long long next;
};

// As many names as one readdirplus reply has room for.
struct Names {
  fuse_req_t req;
  size_t room;
  std::vector<Name> all;
};

}  // namespace

static int collect_name(void *arg, const char *text, unsigned long long ino, unsigned type,
                        unsigned long long next) {
  auto *names = static_cast<Names *>(arg);
  const size_t needed = fuse_add_direntry_plus(names->req, nullptr, 0, text, nullptr, 0);
  if (needed > names->room) return 1;
  names->room -= needed;
  names->all.push_back({text, ino, type, next});
  return 0;
}

// No node for ".", ".." and names whose look-up fails: the host looks them up when it needs them.
static fuse_entry_param entry_of(fuse_req_t req, fuse_ino_t dir, const Name &name) {
  uk_node *node = nullptr;
  uk_stat stat{};
  const bool itself = name.text == "." || name.text == "..";
  if (!itself && uk_lookup(node_of(req, dir), name.text.c_str(), &node, &stat) == 0 &&
      count_lookup(req, node, stat))
    return to_entry(node, stat);
  fuse_entry_param entry{};
  entry.attr.st_ino = name.ino;
  entry.attr.st_mode = to_entry_mode(name.type);
  return entry;
}

static void op_readdirplus(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off,
                           fuse_file_info *fi) {
  as_caller(req, Need::kRights, [&] {
    Names names{req, size, {}};
    const int err =
        uk_readdir(file_of(fi), static_cast<unsigned long long>(off), collect_name, &names);
    if (err && names.all.empty()) {
      reply_error(req, err);
      return;
    }
    char *buf = reply_buffer(size);
    std::vector<uk_node *> given;
    given.reserve(names.all.size());
    size_t used = 0;
    for (const Name &name : names.all) {
      const fuse_entry_param entry = entry_of(req, ino, name);
      used += fuse_add_direntry_plus(req, buf + used, size - used, name.text.c_str(), &entry,
                                     static_cast<off_t>(name.next));
      if (entry.ino) given.push_back(reinterpret_cast<uk_node *>(entry.ino));
    }
    if (fuse_reply_buf(req, buf, used) == -ENOENT)
      for (uk_node *node : given) mount_of(req)->lookups().forget(node, 1);
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
  ops->readdirplus = op_readdirplus;
  ops->releasedir = op_release;
  ops->fsyncdir = op_fsync;
}

}  // namespace tarnd
