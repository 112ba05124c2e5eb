// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/fuse_ops.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <limits>
#include <memory>

#include "tarnd/fuse/translate.h"
#include "tarnd/process/limited_warning.h"

namespace tarnd {

// The largest request that the host kernel makes.
static constexpr unsigned kMaxRequest = 1u << 20;

static void op_init(void *, fuse_conn_info *conn) {
  conn->max_write = kMaxRequest;
  conn->max_readahead = kMaxRequest;
  conn->time_gran = 1;
  // Writes come one by one in the order in which they are made, in plain buffers.
  conn->want &= ~(FUSE_CAP_WRITEBACK_CACHE | FUSE_CAP_ASYNC_DIO | FUSE_CAP_SPLICE_READ |
                  FUSE_CAP_SPLICE_WRITE | FUSE_CAP_SPLICE_MOVE);
  // No getattr before each read to validate the host's page cache: the module's own page cache does
  // not look for changes of the lower file either.
  conn->want &= ~FUSE_CAP_AUTO_INVAL_DATA;
  // The host refuses to truncate a running program. Only it knows which programs run, so it checks
  // first and sends the truncation of an open as a setattr.
  conn->want &= ~FUSE_CAP_ATOMIC_O_TRUNC;
  // The host checks permissions, with the access lists that it reads here: an open of a FIFO, a
  // socket or a device sends no request. The kernel in this process checks again.
  conn->want |= conn->capable & FUSE_CAP_POSIX_ACL;
  // The kernel in this process clears set-user-id bits where its own calls do.
  conn->want |= conn->capable & FUSE_CAP_HANDLE_KILLPRIV;
}

fuse_entry_param to_entry(const CacheTimeouts &timeouts, uk_node *node, const uk_stat &stat) {
  fuse_entry_param entry{};
  entry.ino = reinterpret_cast<fuse_ino_t>(node);
  entry.attr = to_stat(stat);
  entry.attr_timeout = timeouts.attr;
  // An open tells the file, but not the name, which is the record's path: of several names the host
  // asks for the one that is used.
  const bool has_names = !S_ISDIR(stat.mode) && stat.nlink > 1;
  entry.entry_timeout = has_names ? 0 : timeouts.entry;
  return entry;
}

// The other descriptors are for files in the host's dentry cache, for the caches of the kernel in
// this process, for root and for the control channel.
static size_t descriptor_limit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY)
    return std::numeric_limits<size_t>::max();
  return limit.rlim_cur / 2;
}

bool may_open_more(fuse_req_t req) {
  static const size_t limit = descriptor_limit();
  const Mount *mount = mount_of(req);
  const size_t used = mount->lookups().open_files() + uk_pinned_directories();
  if (fuse_req_ctx(req)->uid == 0 || used < limit) return true;
  static LimitedWarning refused;
  refused.print(mount->mountpoint() +
                ": open files, and directories that have to stay open, have half of all "
                "descriptors; users other than root get no more: raise the limit of descriptors "
                "(LimitNOFILE=, ulimit -n)");
  return false;
}

static Kind kind_of(const uk_stat &stat) {
  return S_ISDIR(stat.mode) ? Kind::kDirectory : Kind::kFile;
}

bool count_lookup(fuse_req_t req, uk_node *node, const uk_stat &stat) {
  const Kind kind = kind_of(stat);
  if (kind == Kind::kDirectory && !may_open_more(req)) {
    uk_node_put(node, 1);
    return false;
  }
  mount_of(req)->lookups().add_lookup(node, kind);
  return true;
}

void reply_entry(fuse_req_t req, uk_node *node, const uk_stat &stat) {
  if (!count_lookup(req, node, stat)) {
    reply_error(req, -ENFILE);
    return;
  }
  const fuse_entry_param entry = to_entry(mount_of(req)->timeouts(), node, stat);
  if (fuse_reply_entry(req, &entry) == -ENOENT) mount_of(req)->lookups().forget(node, 1);
}

char *reply_buffer(size_t size) {
  static thread_local std::unique_ptr<char[]> room;
  static thread_local size_t room_size;
  if (size > room_size) {
    room_size = 0;
    room.reset(new char[size]);
    room_size = size;
  }
  return room.get();
}

const fuse_lowlevel_ops &fuse_operations() {
  static const fuse_lowlevel_ops table = [] {
    fuse_lowlevel_ops ops{};
    ops.init = op_init;
    add_name_operations(&ops);
    add_attribute_operations(&ops);
    add_open_operations(&ops);
    add_read_write_operations(&ops);
    add_readdir_operations(&ops);
    return ops;
  }();
  return table;
}

}  // namespace tarnd
