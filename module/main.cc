// SPDX-License-Identifier: GPL-2.0
// Module start and stop: the object caches, the file system type, the order of the subsystems, and
// mounting over a lower directory.

#include "tarn.h"
#include "dir.h"
#include "netlink.h"
#include "rule.h"
#include "trans.h"

struct kmem_cache *tarn_file_info_cache;
struct kmem_cache *tarn_dentry_info_cache;
struct kmem_cache *tarn_inode_info_cache;
struct kmem_cache *tarn_sb_info_cache;

namespace {

// This mutex is held while the lower file system's is taken: lockdep must distinguish them.
struct lock_class_key tarn_vfs_rename_key;

struct tarn_cache_info {
  struct kmem_cache **cache;
  const char *name;
  size_t size;
  void (*ctor)(void *object, struct kmem_cache *cache, unsigned long flags);
};

constexpr struct tarn_cache_info tarn_cache_infos[] = {
    {&tarn_file_info_cache, "tarn_file_cache", sizeof(struct tarn_file_info), nullptr},
    {&tarn_dentry_info_cache, "tarn_dentry_info_cache", sizeof(struct tarn_dentry_info), nullptr},
    {&tarn_inode_info_cache, "tarn_inode_cache", sizeof(struct tarn_inode_info), nullptr},
    {&tarn_sb_info_cache, "tarn_sb_cache", sizeof(struct tarn_sb_info), nullptr},
};

// Stops at the first failure. All later ones are null, also if the module was started before in the
// same memory.
int create_caches() {
  for (const struct tarn_cache_info &info : tarn_cache_infos) *info.cache = nullptr;
  for (const struct tarn_cache_info &info : tarn_cache_infos) {
    *info.cache = kmem_cache_create(info.name, info.size, 0, 0, info.ctor, nullptr);
    if (!*info.cache) return -ENOMEM;
  }
  return 0;
}

// Each of these steps starts the next one and undoes itself if that fails.

int start_directories_and_capture() {
  static_assert(sizeof("/usr/local/oxbase/sbin/mirrord") <= sizeof(mirrord_full_name));
  strcpy(mirrord_full_name, "/usr/local/oxbase/sbin/mirrord");
  int rc = dir_init();
  if (rc) {
    printk("dir_init fail\n");
    return rc;
  }
  rc = tarn_trans_init();
  if (!rc) return 0;
  printk("tarn_trans_init fail\n");
  dir_exit();
  return rc;
}

int start_rules() {
  int rc = prule_init();
  if (rc) {
    printk("prule_init fail\n");
    return rc;
  }
  rc = start_directories_and_capture();
  if (rc) prule_exit();
  return rc;
}

int start_channel() {
  int rc = tarn_init_netlink();
  if (rc) {
    printk("tarn_init_netlink fail\n");
    return rc;
  }
  rc = start_rules();
  if (rc) tarn_release_netlink();
  return rc;
}

int start_file_system() {
  int rc = register_filesystem(&tarn_fs_type);
  if (rc) return rc;
  printk("Register tarn filesystem success\n");
  rc = start_channel();
  if (rc) unregister_filesystem(&tarn_fs_type);
  return rc;
}

// Binds `sb` to the lower directory at `path`; its root keeps the references of the look-up.
int bind_root(struct super_block *sb, const char *path) {
  struct nameidata nd;
  memset(&nd, 0, sizeof(nd));
  int rc = path_lookup(path, LOOKUP_FOLLOW | LOOKUP_DIRECTORY, &nd);
  if (rc) return rc;

  struct super_block *lower_sb = nd.dentry->d_sb;
  tarn_sb(sb)->lower_sb = lower_sb;
  sb->s_maxbytes = lower_sb->s_maxbytes;
  sb->s_blocksize = lower_sb->s_blocksize;
  sb->s_bdev = lower_sb->s_bdev;
  sb->s_blocksize_bits = lower_sb->s_blocksize_bits;

  struct path &lower_path = tarn_dentry(sb->s_root)->lower_path;
  lower_path.dentry = nd.dentry;
  lower_path.mnt = nd.mnt;
  rc = tarn_interpose(nd.dentry, sb->s_root, sb, TARN_INSTANTIATE);
  if (rc) {
    // path_release() drops the references, so the root's release must not.
    lower_path.dentry = nullptr;
    lower_path.mnt = nullptr;
    path_release(&nd);
  }
  return rc;
}

}  // namespace

void tarn_free_kmem_caches(void) {
  for (const struct tarn_cache_info &info : tarn_cache_infos) {
    if (*info.cache) kmem_cache_destroy(*info.cache);
  }
}

// Makes a super block without a root inode, which tarn_get_sb binds. After an error the allocations
// stay with the super block.
int tarn_fill_super(struct super_block *sb, void *, int) {
  sb->s_fs_info = kmem_cache_zalloc(tarn_sb_info_cache, GFP_KERNEL);
  if (!sb->s_fs_info) return -ENOMEM;
  sb->s_op = &tarn_sops;
  lockdep_set_class(&sb->s_vfs_rename_mutex, &tarn_vfs_rename_key);

  const struct qstr name = {
      .hash = 0, .len = 1, .name = reinterpret_cast<const unsigned char *>("/")};
  sb->s_root = d_alloc(nullptr, &name);
  if (!sb->s_root) return -ENOMEM;
  sb->s_root->d_op = &tarn_dops;
  sb->s_root->d_sb = sb;
  sb->s_root->d_parent = sb->s_root;

  // Zeroed: a root that is never bound has no lower path to release.
  sb->s_root->d_fsdata = kmem_cache_zalloc(tarn_dentry_info_cache, GFP_KERNEL);
  return sb->s_root->d_fsdata ? 0 : -ENOMEM;
}

int tarn_get_sb(struct file_system_type *fs_type, int flags, const char *dev_name, void *data,
                struct vfsmount *mnt) {
  if (!dev_name || !*dev_name) return -EINVAL;  // mount(2) does not check it
  int rc = get_sb_nodev(fs_type, flags, data, tarn_fill_super, mnt);
  if (rc < 0) return rc;

  struct super_block *sb = mnt->mnt_sb;
  rc = bind_root(sb, dev_name);
  if (!rc) return 0;
  dput(sb->s_root);  // the mount's reference
  up_write(&sb->s_umount);
  deactivate_super(sb);
  return rc;
}

// The anonymous device number from get_sb_nodev is not freed.
void tarn_kill_block_super(struct super_block *sb) {
  generic_shutdown_super(sb);
}

struct file_system_type tarn_fs_type = {
    .name = "tarn",
    .fs_flags = 0,
    .get_sb = tarn_get_sb,
    .kill_sb = tarn_kill_block_super,
    .owner = THIS_MODULE,
};

int tarn_init(void) {
  tarn_interpose_init();
  int rc = create_caches();
  if (!rc) rc = start_file_system();
  if (rc) tarn_free_kmem_caches();
  return rc;
}

void tarn_exit(void) {
  tarn_trans_exit();
  prule_exit();
  dir_exit();
  tarn_release_netlink();
  printk("tarn_exit: unregister tarn system\n");
  unregister_filesystem(&tarn_fs_type);
  tarn_free_kmem_caches();
}
