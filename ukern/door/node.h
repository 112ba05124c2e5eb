/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Nodes: the objects behind the hosting program's handles, and finding the dentry for a call on a
 * node.
 *
 * A node stands for one inode of one mount, whatever its number of names. It has references to the
 * mount and to the dentry of its last lookup, which pins the inode. The hosting program owns the
 * references to the node; at zero the node drops its own and is freed.
 *
 * Locks: a spin lock, shared by many inodes, covers the lists and the counts of their nodes; a spin
 * lock per node covers its dentry pointer. They do not nest. References are dropped with neither
 * lock held.
 */
#ifndef UKERN_DOOR_NODE_H
#define UKERN_DOOR_NODE_H

#include <linux/sched.h>

#include "ukern/door/uk_fs.h"
#include "ukern/sched/user_memory.h"
#include "ukern/syscall/syscall.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Create the slab cache before the first node and destroy it after the last. 0 or -ENOMEM. */
int ukern_nodes_init(void);
void ukern_nodes_exit(void);

/* Gets the node of a path, with a reference for the caller; -ENOENT for a negative dentry, -ENOMEM.
 * The path's references stay the caller's. */
int node_get(struct vfsmount *mnt, struct dentry *dentry, struct uk_node **out);

/* The node's mount and dentry without a walk, for a directory in which a name is looked up. The
 * dentry comes with a reference (dput); the caller's node pins the mount. */
void node_hold(struct uk_node *node, struct walk_path *path);

/*
 * Walks the last component again, from the dentry's parent by its name, so that it is revalidated
 * as in a system call. If it leads to the node's inode, the node switches to the dentry found. If
 * the name is gone or belongs to another object, the node switches to another alias of the inode in
 * the dcache, or else uses the dentry that it has. References as with node_hold.
 */
int node_walk(struct uk_node *node, struct walk_path *path);

/*
 * Call it when the node's file has got a second name: pins the dentry of the first one while the
 * node lives. The host may use that name for a while without a lookup, also when it has looked the
 * other one up and this is gone by then. Without effect where the name cannot be walked again.
 */
void node_keep_name(struct uk_node *node);

/*
 * As node_walk() with the intent to open: a nameidata for may_open and nameidata_to_filp. `flags`
 * are those of the system call.
 */
int node_walk_to_open(struct uk_node *node, int flags, struct nameidata *nd);

/* Checks that a name is one component, neither "." nor "..". 0 or -errno. */
int node_check_name(const char *name);

/* Looks a name up, also one just created: its node, with a reference, and its attributes. */
int node_result(struct walk_path *dir, const char *name, struct uk_node **out,
                struct uk_stat *stat);
/* vfs_getattr to a struct uk_stat. `stat` may be NULL. */
int node_stat(struct walk_path *path, struct uk_stat *stat);

#ifdef __cplusplus
}

/* A struct uk_file is a struct file, with one reference. */
inline struct file *node_file(struct uk_file *file) {
  return reinterpret_cast<struct file *>(file);
}

/* Marks a request of the hosting program in the current task, for the lifetime of the object. */
class host_request_scope {
 public:
  explicit host_request_scope(host_request_kind kind = REQUEST_OTHER) {
    static unsigned long requests;
    request_begin(&current->request, kind, __atomic_add_fetch(&requests, 1, __ATOMIC_RELAXED));
  }
  ~host_request_scope() { request_end(&current->request); }
  host_request_scope(const host_request_scope &) = delete;
  host_request_scope &operator=(const host_request_scope &) = delete;
};

/* Makes a buffer user memory of the current task for the lifetime of the object. */
class user_buffer {
 public:
  user_buffer(const void *start, unsigned long len)
      : start_(len ? start : nullptr), error_(len ? user_memory_add(start, len) : 0) {}
  ~user_buffer() {
    if (start_ && !error_) user_memory_del(start_);
  }
  user_buffer(const user_buffer &) = delete;
  user_buffer &operator=(const user_buffer &) = delete;
  int error() const { return error_; }

 private:
  const void *start_;
  int error_;
};
#endif
#endif
