// SPDX-License-Identifier: GPL-2.0
// Start and end of the VFS and of its root mount.

#include "ukern/vfs/mount_internal.h"

#include <linux/sched.h>

#include "ukern/sched/boot.h"
#include "ukern/vfs/file_table.h"

struct part {
  int (*init)(void);
  void (*exit)(void);
};

static const struct part parts[] = {
    {dcache_init, dcache_exit},
    {inode_cache_init, inode_cache_exit},
    {super_init, super_exit},
    {mnt_init, mnt_exit},
    {ukern_files_init, ukern_files_exit},
    {cache_pruner_start, cache_pruner_stop},
};

static void stop_parts(unsigned count) {
  while (count--) parts[count].exit();
}

int ukern_vfs_init(void) {
  for (unsigned i = 0; i < ARRAY_SIZE(parts); i++) {
    const int err = parts[i].init();
    if (err) {
      stop_parts(i);
      return err;
    }
  }
  return 0;
}

void ukern_vfs_exit(void) {
  stop_parts(ARRAY_SIZE(parts));
}

int ukern_mount_root(const char *type, const char *source) {
  struct vfsmount *root = do_kern_mount(type, 0, source, nullptr);
  int err;

  if (IS_ERR(root)) return static_cast<int>(PTR_ERR(root));
  err = ukern_namespace_start(root);
  if (err) {
    mntput(root);
    return err;
  }
  set_fs_root(&init_fs, root, root->mnt_root);
  set_fs_pwd(&init_fs, root, root->mnt_root);
  return 0;
}

void ukern_umount_root(void) {
  set_fs_root(&init_fs, nullptr, nullptr);
  set_fs_pwd(&init_fs, nullptr, nullptr);
  ukern_namespace_stop();
  mount_report_busy();
}
