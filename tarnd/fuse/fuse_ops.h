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
void add_file_operations(fuse_lowlevel_ops *ops);

/*
 * Names are not kept by the host: each path walk asks for each name again, so that a change made
 * directly in the lower directory is seen at once. What the walk of a system call has found is good
 * for that call (path_walk.h).
 *
 * A name's answer brings the attributes with it, and the call that looked the name up needs them
 * right after it, to check what the caller may do and perhaps to tell them: for that they may be
 * used until the host's clock ticks twice.
 *
 * The host is not told to drop anything while a request is served: it may wait for pages that other
 * requests hold, and those for the threads that all wait here.
 */
inline constexpr double kNotKept = 0;
inline constexpr double kForThisCall = 1e-6;

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
 * Whether the caller may have one more open file, or a directory that costs a descriptor: for as
 * long as programs like, and root must be able to do something about it. Warns when not.
 */
bool may_hold_more(fuse_req_t req);
/* The reference that came with the node is the host's from here on; false if the host may not have
 * it, and then it is given back. */
bool add_node(fuse_req_t req, uk_node *node, const uk_stat &stat);
/* The same with the answer. The reference is the host's unless it is not there to take
 * it. */
void reply_entry(fuse_req_t req, uk_node *node, const uk_stat &stat);
fuse_entry_param to_entry(uk_node *node, const uk_stat &stat);

/*
 * Runs an adapter's body as the request's caller; without memory for the caller's identity the
 * answer is ENOMEM. No exception may reach libfuse.
 */
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

/* The same of what may have to wait for a daemon: a signal to the caller ends the wait. */
template <typename Body>
void as_waiting_caller(fuse_req_t req, Need need, Body body) {
  as_caller(req, need, [&] {
    const Listening listening(caller_task(), req);
    body();
  });
}

/* The same of what gives back: whose task it is does not matter. */
template <typename Body>
void as_anybody(Body body) {
  const ActAs act(caller_task().task());
  body();
}

}  // namespace tarnd

#endif
