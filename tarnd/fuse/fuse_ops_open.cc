// SPDX-License-Identifier: GPL-2.0
// Opening, creating and releasing of files and directories.

#include <fcntl.h>

#include <cerrno>

#include "tarnd/fuse/fuse_ops.h"
#include "tarnd/fuse/translate.h"

namespace tarnd {

static void register_open(Mount *mount, uk_file *file, uk_node *node, fuse_file_info *fi) {
  mount->lookups().add_open_file(file, node);
  fi->fh = reinterpret_cast<uint64_t>(file);
  fi->keep_cache = 1;  // the host keeps the page cache of an earlier open
  fi->noflush = 1;     // close() has nothing to write back here
}

static int open_node(fuse_req_t req, uk_node *node, int flags, uk_file **file) {
  return may_open_more(req) ? uk_open(node, flags, file) : -ENFILE;
}

// Files are released at once if the reply cannot be delivered.
static void op_open(fuse_req_t req, fuse_ino_t ino, fuse_file_info *fi) {
  as_waiting_caller(req, Need::kPath, [&] {
    uk_node *node = node_of(req, ino);
    uk_file *file = nullptr;
    if (const int err = open_node(req, node, to_open_flags(fi->flags), &file)) {
      reply_error(req, err);
      return;
    }
    Mount *mount = mount_of(req);
    register_open(mount, file, node, fi);
    if (fuse_reply_open(req, fi) == -ENOENT) mount->lookups().release(file);
  });
}

static void release_directory(Mount *mount, uk_node *node, uk_file *file) {
  mount->listings().released(node);
  mount->lookups().release(file);
}

static void op_opendir(fuse_req_t req, fuse_ino_t ino, fuse_file_info *fi) {
  as_waiting_caller(req, Need::kPath, [&] {
    uk_node *node = node_of(req, ino);
    uk_file *file = nullptr;
    if (const int err = open_node(req, node, to_open_flags(fi->flags) | UK_O_DIRECTORY, &file)) {
      reply_error(req, err);
      return;
    }
    Mount *mount = mount_of(req);
    register_open(mount, file, node, fi);
    fi->cache_readdir = mount->listings().enabled();
    fi->keep_cache = mount->listings().opened(node);
    if (fuse_reply_open(req, fi) == -ENOENT) release_directory(mount, node, file);
  });
}

static void op_create(fuse_req_t req, fuse_ino_t parent, const char *name, mode_t mode,
                      fuse_file_info *fi) {
  // Not kPath: the kernel looks up again whether the name is free.
  as_waiting_caller(req, Need::kRights, [&] {
    uk_node *node = nullptr;
    uk_file *file = nullptr;
    uk_stat stat{};
    const int flags = to_create_flags(fi->flags);
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
    const fuse_entry_param entry = to_entry(mount->timeouts(), node, stat);
    if (fuse_reply_create(req, &entry, fi) == -ENOENT) {
      lookups.release(file);
      lookups.forget(node, 1);
    }
  });
}

static void op_flush(fuse_req_t req, fuse_ino_t, fuse_file_info *fi) {
  as_caller(req, Need::kBasic, [&] { reply_error(req, uk_flush(file_of(fi))); });
}

static void op_release(fuse_req_t req, fuse_ino_t, fuse_file_info *fi) {
  for_release([&] {
    mount_of(req)->lookups().release(file_of(fi));
    fuse_reply_err(req, 0);
  });
}

static void op_releasedir(fuse_req_t req, fuse_ino_t ino, fuse_file_info *fi) {
  for_release([&] {
    release_directory(mount_of(req), node_of(req, ino), file_of(fi));
    fuse_reply_err(req, 0);
  });
}

void add_open_operations(fuse_lowlevel_ops *ops) {
  ops->open = op_open;
  ops->create = op_create;
  ops->flush = op_flush;
  ops->release = op_release;
  ops->opendir = op_opendir;
  ops->releasedir = op_releasedir;
}

}  // namespace tarnd
