/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Nodes: what the hosting program has handles on, and how a call by a node finds the dentry to work
 * on.
 *
 * A node stands for one inode of one mount, however many names it has. It holds the dentry under
 * which it was looked up last, and through it the inode, and the mount. Its count is the caller's;
 * at zero the node and what it holds are gone.
 *
 * Locks: a spin lock, shared by many inodes, covers the lists and the counts of their nodes;
 * a spin lock per node covers which dentry it holds. They do not nest. References are dropped with
 * neither held.
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

/* The cache of nodes: made before the first call by one, given back when all are. 0 or -ENOMEM. */
int ukern_nodes_init(void);
void ukern_nodes_exit(void);

/* The node of a path, with one more reference; -ENOENT for a negative dentry, -ENOMEM. Takes
 * nothing over. */
int node_get(struct vfsmount *mnt, struct dentry *dentry, struct uk_node **out);

/* The mount and dentry held, as they are: for a directory that a name is looked up in. The dentry
 * comes with a reference, for dput; the mount is the node's, which the caller has. */
void node_hold(struct uk_node *node, struct walk_path *path);

/*
 * As a system call by a name finds it: the last step is walked again, from the parent of the dentry
 * held by its name, so that it is revalidated; where it leads to the node's inode, the node changes
 * over to the dentry found. Where it does not, because the name is gone or is another's, the node
 * changes over to another name of the inode in the dcache, if there is one; else the dentry held is
 * used. References are those of node_hold.
 */
int node_walk(struct uk_node *node, struct walk_path *path);

/*
 * The same with the intent to open: a nameidata for may_open and nameidata_to_filp. `flags` are
 * those of the system call.
 */
int node_walk_to_open(struct uk_node *node, int flags, struct nameidata *nd);

/* A name that a call by a directory node may act on: one component, neither "." nor "..". 0 or the
 * error. */
int node_check_name(const char *name);

/* The node at a name just looked up or made, and its attributes. */
int node_result(struct walk_path *dir, const char *name, struct uk_node **out,
                struct uk_stat *stat);
/* vfs_getattr in the form of uk_fs.h. `stat` may be NULL. */
int node_stat(struct walk_path *path, struct uk_stat *stat);

#ifdef __cplusplus
}

/* A struct uk_file is a struct file, with one reference. */
inline struct file *node_file(struct uk_file *file) {
  return reinterpret_cast<struct file *>(file);
}

/* A request of the hosting program by the current task, for as long as this stands. */
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

/* Makes a buffer user memory of the current task for as long as this stands. */
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
