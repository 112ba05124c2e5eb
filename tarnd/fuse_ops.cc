// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse_ops.h"

#include "tarnd/translate.h"

namespace tarnd {

// The largest request that the host kernel makes.
static constexpr unsigned kMaxRequest = 1u << 20;

static void op_init(void *, fuse_conn_info *conn) {
  conn->max_write = kMaxRequest;
  conn->max_readahead = kMaxRequest;
  conn->time_gran = 1;
  // Writes come one by one in the order in which they are made, in plain buffers.
  conn->want &= ~(FUSE_CAP_WRITEBACK_CACHE | FUSE_CAP_SPLICE_READ | FUSE_CAP_SPLICE_WRITE |
                  FUSE_CAP_SPLICE_MOVE | FUSE_CAP_READDIRPLUS | FUSE_CAP_READDIRPLUS_AUTO);
  // The kernel in this process takes set-user-id off where its own calls do, and truncates in open.
  conn->want |= conn->capable & (FUSE_CAP_HANDLE_KILLPRIV | FUSE_CAP_ATOMIC_O_TRUNC);
}

fuse_entry_param to_entry(uk_node *node, const uk_stat &stat) {
  fuse_entry_param entry{};
  entry.ino = reinterpret_cast<fuse_ino_t>(node);
  entry.attr = to_stat(stat);
  entry.attr_timeout = kCacheSeconds;
  entry.entry_timeout = kCacheSeconds;
  return entry;
}

void reply_entry(fuse_req_t req, uk_node *node, const uk_stat &stat) {
  Mount *mount = mount_of(req);
  const fuse_entry_param entry = to_entry(node, stat);
  mount->holdings().add_node(node);
  if (fuse_reply_entry(req, &entry) == -ENOENT) mount->holdings().drop_node(node, 1);
}

const fuse_lowlevel_ops &fuse_operations() {
  static const fuse_lowlevel_ops table = [] {
    fuse_lowlevel_ops ops{};
    ops.init = op_init;
    add_name_operations(&ops);
    add_attribute_operations(&ops);
    add_file_operations(&ops);
    return ops;
  }();
  return table;
}

}  // namespace tarnd
