/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The operations of a mount's FUSE session: one short adapter each, which translates, makes the
 * caller the current task, calls the kernel and replies with its result. The session's user data is
 * the Mount.
 */
#ifndef TARND_FUSE_FUSE_OPS_H
#define TARND_FUSE_FUSE_OPS_H

#include <new>

#include "tarnd/fuse/caller.h"
#include "tarnd/fuse/fuse_api.h"
#include "tarnd/fuse/mount.h"
#include "ukern/door/uk_fs.h"

namespace tarnd {

const fuse_lowlevel_ops &fuse_operations();

/* Each file of adapters fills in its own. */
void add_name_operations(fuse_lowlevel_ops *ops);
void add_attribute_operations(fuse_lowlevel_ops *ops);
void add_open_operations(fuse_lowlevel_ops *ops);
void add_read_write_operations(fuse_lowlevel_ops *ops);
void add_readdir_operations(fuse_lowlevel_ops *ops);

/*
 * The host keeps names and attributes for as long as the mount says. It updates them itself for
 * what is done through the mount; a change made directly in the lower directory is seen when the
 * time is over. Where it keeps none, each path walk looks each name up again, and the result of a
 * walk is valid for its system call (path_walk.h).
 *
 * No worker sends an invalidation to the host. The host may wait there for a page that another
 * request has locked, and that request for a worker.
 */

inline Mount *mount_of(fuse_req_t req) {
  return static_cast<Mount *>(fuse_req_userdata(req));
}

inline uk_node *node_of(const Mount *mount, fuse_ino_t ino) {
  return ino == FUSE_ROOT_ID ? mount->root() : reinterpret_cast<uk_node *>(ino);
}

inline uk_node *node_of(fuse_req_t req, fuse_ino_t ino) {
  return node_of(mount_of(req), ino);
}

inline uk_file *file_of(const fuse_file_info *fi) {
  return fi ? reinterpret_cast<uk_file *>(fi->fh) : nullptr;
}

/* The kernel's errors are negative, those of a reply positive. */
inline void reply_error(fuse_req_t req, long err) {
  fuse_reply_err(req, static_cast<int>(err < 0 ? -err : 0));
}

/*
 * Whether the caller may have one more open file, or a directory with a descriptor. Users may have
 * half of all descriptors in use; root may always open more. Prints a warning when not.
 */
bool may_open_more(fuse_req_t req);
/* Takes the caller's reference to the node for the host. False, with the reference dropped, if
 * may_open_more() refuses. */
bool count_lookup(fuse_req_t req, uk_node *node, const uk_stat &stat);
/* The same with the reply. Drops the reference if the reply cannot be delivered. */
void reply_entry(fuse_req_t req, uk_node *node, const uk_stat &stat);
fuse_entry_param to_entry(const CacheTimeouts &timeouts, uk_node *node, const uk_stat &stat);

/* Room for a reply's data: one buffer per worker, reused without clearing. Throws std::bad_alloc.
 */
char *reply_buffer(size_t size);

/* Runs an adapter's body as the request's caller. Replies ENOMEM when memory runs out: no exception
 * may reach libfuse. */
template <typename Body>
void as_caller(fuse_req_t req, Need need, Body body) {
  try {
    CallerTask &caller = caller_task();
    const ActAs act(caller.task());
    caller.become(req, need);
    body();
  } catch (const std::bad_alloc &) {
    fuse_reply_err(req, ENOMEM);
  }
}

/* The same for operations that may wait for a daemon: a signal to the caller ends the wait. */
template <typename Body>
void as_waiting_caller(fuse_req_t req, Need need, Body body) {
  as_caller(req, need, [&] {
    const InterruptScope interrupts(caller_task(), req);
    body();
  });
}

/* For releases; runs as no particular caller. */
template <typename Body>
void for_release(Body body) {
  const ActAs act(caller_task().task());
  body();
}

}  // namespace tarnd

#endif
