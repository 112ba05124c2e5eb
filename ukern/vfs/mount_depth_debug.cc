// SPDX-License-Identifier: GPL-2.0
// Debug builds: the number of file systems below a new one, for its lock classes.

#include "ukern/vfs/super_internal.h"

#include <linux/namei.h>
#include <linux/sched.h>

#include "ukern/sync/lockcheck.h"

// The depth of the file system that the calling thread is mounting.
static __thread unsigned depth_now __attribute__((tls_model("initial-exec")));

// A source that is the path of a directory is the lower directory of a stackable file system; for
// other file systems the depth does not matter.
static unsigned depth_over(const char *source) {
  struct nameidata nd;
  if (!source || *source != '/' || !current->fs->rootmnt) return 0;
  if (path_lookup(source, LOOKUP_FOLLOW | LOOKUP_DIRECTORY, &nd)) return 0;
  const unsigned depth = nd.dentry->d_sb->ukern_depth + 1;
  path_release(&nd);
  return depth;
}

unsigned mount_depth(void) {
  return depth_now;
}

int get_sb_at_depth(struct file_system_type *type, int flags, const char *name, void *data,
                    struct vfsmount *mnt) {
  const unsigned outer = depth_now;
  depth_now = depth_over(name);
  UKERN_LOCK_DEPTH(depth_now);
  const int err = type->get_sb(type, flags, name, data, mnt);
  depth_now = outer;
  return err;
}

void note_super_depth(struct super_block *sb) {
  sb->ukern_depth = sb->s_lock.dep_map.depth;
}
