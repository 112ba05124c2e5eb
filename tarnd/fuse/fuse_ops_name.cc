// SPDX-License-Identifier: GPL-2.0
// Names: lookup and what makes, moves and removes them.

#include <sys/stat.h>

#include <climits>
#include <cerrno>

#include "tarnd/fuse/fuse_ops.h"

namespace tarnd {

// The answer to whatever makes or finds a node.
static void reply_node(fuse_req_t req, int err, uk_node *node, const uk_stat &stat) {
  if (err) {
    reply_error(req, err);
  } else {
    reply_entry(req, node, stat);
  }
}

// Lets the host keep that there is no such name.
static void reply_missing(fuse_req_t req) {
  fuse_entry_param entry{};
  entry.entry_timeout = mount_of(req)->timeouts().entry;
  if (entry.entry_timeout > 0)
    fuse_reply_entry(req, &entry);
  else
    fuse_reply_err(req, ENOENT);
}

static void op_lookup(fuse_req_t req, fuse_ino_t parent, const char *name) {
  as_caller(req, Need::kLookup, [&] {
    uk_node *node = nullptr;
    uk_stat stat{};
    const int err = uk_lookup(node_of(req, parent), name, &node, &stat);
    if (!err && !S_ISDIR(stat.mode))
      mount_of(req)->readdirplus_advice().looked_up(fuse_req_ctx(req)->pid, node_of(req, parent));
    if (err == -ENOENT)
      reply_missing(req);
    else
      reply_node(req, err, node, stat);
  });
}

static void op_forget(fuse_req_t req, fuse_ino_t ino, uint64_t count) {
  for_release([&] {
    if (ino != FUSE_ROOT_ID) mount_of(req)->lookups().forget(node_of(req, ino), count);
    fuse_reply_none(req);
  });
}

static void op_forget_multi(fuse_req_t req, size_t count, fuse_forget_data *forgets) {
  for_release([&] {
    for (size_t i = 0; i < count; i++) {
      const fuse_ino_t ino = forgets[i].ino;
      if (ino != FUSE_ROOT_ID)
        mount_of(req)->lookups().forget(node_of(req, ino), forgets[i].nlookup);
    }
    fuse_reply_none(req);
  });
}

static void op_mknod(fuse_req_t req, fuse_ino_t parent, const char *name, mode_t mode, dev_t rdev) {
  as_waiting_caller(req, Need::kPath, [&] {
    uk_node *node = nullptr;
    uk_stat stat{};
    const int err =
        uk_mknod(node_of(req, parent), name, mode, static_cast<unsigned>(rdev), &node, &stat);
    reply_node(req, err, node, stat);
  });
}

static void op_mkdir(fuse_req_t req, fuse_ino_t parent, const char *name, mode_t mode) {
  as_waiting_caller(req, Need::kPath, [&] {
    uk_node *node = nullptr;
    uk_stat stat{};
    const int err =
        may_open_more(req) ? uk_mkdir(node_of(req, parent), name, mode, &node, &stat) : -ENFILE;
    reply_node(req, err, node, stat);
  });
}

static void op_symlink(fuse_req_t req, const char *target, fuse_ino_t parent, const char *name) {
  as_waiting_caller(req, Need::kPath, [&] {
    uk_node *node = nullptr;
    uk_stat stat{};
    const int err = uk_symlink(node_of(req, parent), name, target, &node, &stat);
    reply_node(req, err, node, stat);
  });
}

static void op_link(fuse_req_t req, fuse_ino_t ino, fuse_ino_t parent, const char *name) {
  as_waiting_caller(req, Need::kPath, [&] {
    uk_node *node = nullptr;
    uk_stat stat{};
    const int err = uk_link(node_of(req, ino), node_of(req, parent), name, &node, &stat);
    reply_node(req, err, node, stat);
  });
}

static void op_unlink(fuse_req_t req, fuse_ino_t parent, const char *name) {
  as_waiting_caller(req, Need::kPath,
                    [&] { reply_error(req, uk_unlink(node_of(req, parent), name)); });
}

static void op_rmdir(fuse_req_t req, fuse_ino_t parent, const char *name) {
  as_waiting_caller(req, Need::kPath,
                    [&] { reply_error(req, uk_rmdir(node_of(req, parent), name)); });
}

static void op_rename(fuse_req_t req, fuse_ino_t parent, const char *name, fuse_ino_t new_parent,
                      const char *new_name, unsigned flags) {
  as_waiting_caller(req, Need::kPath, [&] {
    // Exchange, whiteout and no-replace came with later kernels.
    const int err =
        flags ? -EINVAL : uk_rename(node_of(req, parent), name, node_of(req, new_parent), new_name);
    reply_error(req, err);
  });
}

static void op_readlink(fuse_req_t req, fuse_ino_t ino) {
  as_caller(req, Need::kBasic, [&] {
    char target[PATH_MAX + 1];
    const int len = uk_readlink(node_of(req, ino), target, PATH_MAX);
    if (len < 0) {
      reply_error(req, len);
      return;
    }
    target[len] = '\0';
    fuse_reply_readlink(req, target);
  });
}

void add_name_operations(fuse_lowlevel_ops *ops) {
  ops->lookup = op_lookup;
  ops->forget = op_forget;
  ops->forget_multi = op_forget_multi;
  ops->mknod = op_mknod;
  ops->mkdir = op_mkdir;
  ops->symlink = op_symlink;
  ops->link = op_link;
  ops->unlink = op_unlink;
  ops->rmdir = op_rmdir;
  ops->rename = op_rename;
  ops->readlink = op_readlink;
}

}  // namespace tarnd
