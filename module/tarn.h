/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The stackable layer: the structures that bind each upper object of a mount to its lower object,
 * the accessors to the lower objects, and the operation tables.
 *
 * Ownership: an upper inode owns one reference on its lower inode, and its shared lower file. A
 * dentry's tarn_dentry_info owns one reference on the lower dentry and one on the lower mount; if a
 * directory was found by another lower dentry, the former ones are kept too. The accessors take no
 * reference and no lock: their results live as long as the upper object, except an inode's
 * `lower_file`, which the first open sets once, under `lower_file_mutex`, and which stays until the
 * inode is destroyed.
 *
 * Lock order: the VFS's locks on upper objects; then the one that serializes the dentries of
 * directories (interpose.cc), or the i_mutex of a lower directory or object. `lower_file_mutex` is
 * taken with none of the latter held; inside it the lower file system takes its own locks to read
 * or write the shared lower file.
 *
 * Operations return 0 (or a count) or a negative error number; they may sleep.
 */
#ifndef TARN_TARN_H
#define TARN_TARN_H

#include "kernel.h"

/* Contains the upper inode, so its cache is the inode allocator. */
struct tarn_inode_info {
  struct inode vfs_inode;
  struct inode *lower_inode;
  struct file *lower_file;       /* under lower_file_mutex until set; shared by all opens */
  struct mutex lower_file_mutex; /* also held across each lower read and write, for f_pos */
  /* For the current write, under the upper i_mutex: the offset at which the lower write was short,
   * or TARN_NOT_CUT. */
  loff_t cut_at;
  /* For a directory, set once: the lower mount through which it is reached. Only compared; each of
   * its dentries has a reference. */
  const struct vfsmount *lower_mnt;
};

#define TARN_NOT_CUT (-1)

/* Linux 2.6.18 defines this structure only in fs/namei.c. */
struct path {
  struct vfsmount *mnt;
  struct dentry *dentry;
};

/* Holds one reference on each part of the lower path. */
struct tarn_dentry_info {
  struct path lower_path;
  struct tarn_dentry_info *former; /* a directory's former lower path, released with this one */
};

struct tarn_file_info {
  struct file *lower_file; /* the inode's; no reference */
  void *private_;
};

struct tarn_sb_info {
  struct super_block *lower_sb;
};

inline struct tarn_inode_info *tarn_inode(struct inode *inode) {
  return reinterpret_cast<struct tarn_inode_info *>(inode); /* the first member */
}

inline struct inode *tarn_lower_inode(struct inode *inode) {
  return tarn_inode(inode)->lower_inode;
}

/*
 * Null for a dentry that has not been bound; such a dentry has no lower path. A directory's may be
 * replaced at any moment (interpose.cc), so each call may give another one; all of them live as
 * long as the dentry.
 */
inline struct tarn_dentry_info *tarn_dentry(const struct dentry *dentry) {
  return static_cast<struct tarn_dentry_info *>(
      __atomic_load_n(&dentry->d_fsdata, __ATOMIC_ACQUIRE));
}

inline struct dentry *tarn_lower_dentry(const struct dentry *dentry) {
  return tarn_dentry(dentry)->lower_path.dentry;
}

inline struct vfsmount *tarn_lower_mnt(const struct dentry *dentry) {
  return tarn_dentry(dentry)->lower_path.mnt;
}

inline struct tarn_file_info *tarn_file(const struct file *file) {
  return static_cast<struct tarn_file_info *>(file->private_data);
}

inline struct file *tarn_lower_file(const struct file *file) {
  return tarn_file(file)->lower_file;
}

inline struct tarn_sb_info *tarn_sb(const struct super_block *sb) {
  return static_cast<struct tarn_sb_info *>(sb->s_fs_info);
}

inline struct super_block *tarn_lower_sb(const struct super_block *sb) {
  return tarn_sb(sb)->lower_sb;
}

/*
 * Gives a nameidata the lower path of its dentry for a lower call, and restores the upper path at
 * the end of the scope. Clears LOOKUP_OPEN for the call: the lower file system might open the file
 * itself and leave it in the nameidata. Null: does nothing.
 */
class tarn_lower_nd {
 public:
  tarn_lower_nd(struct nameidata *nd, struct dentry *lower_dentry, struct vfsmount *lower_mnt)
      : nd_(nd),
        dentry_(nd ? nd->dentry : nullptr),
        mnt_(nd ? nd->mnt : nullptr),
        open_(nd ? nd->flags & LOOKUP_OPEN : 0) {
    if (!nd_) return;
    nd_->flags &= ~LOOKUP_OPEN;
    nd_->dentry = lower_dentry;
    nd_->mnt = lower_mnt;
  }
  ~tarn_lower_nd() {
    if (!nd_) return;
    nd_->dentry = dentry_;
    nd_->mnt = mnt_;
    nd_->flags |= open_;
  }
  tarn_lower_nd(const tarn_lower_nd &) = delete;
  tarn_lower_nd &operator=(const tarn_lower_nd &) = delete;

 private:
  struct nameidata *nd_;
  struct dentry *dentry_;
  struct vfsmount *mnt_;
  unsigned open_;
};

/* main.cc */
extern struct kmem_cache *tarn_file_info_cache;
extern struct kmem_cache *tarn_dentry_info_cache;
extern struct kmem_cache *tarn_inode_info_cache;
extern struct kmem_cache *tarn_sb_info_cache;
extern struct file_system_type tarn_fs_type;

extern "C" {
int tarn_init(void);
void tarn_exit(void);
}
void tarn_free_kmem_caches(void);
int tarn_get_sb(struct file_system_type *fs_type, int flags, const char *dev_name, void *data,
                struct vfsmount *mnt);
int tarn_fill_super(struct super_block *sb, void *data, int silent);
void tarn_kill_block_super(struct super_block *sb);

/* super.cc */
extern struct super_operations tarn_sops;

/* dentry.cc */
extern struct dentry_operations tarn_dops;

/* interpose.cc */
/* The caller of tarn_interpose; selects how the dentry gets its inode. */
enum tarn_interpose_flag {
  TARN_INSTANTIATE = 0, /* the creation of an object */
  TARN_SPLICE = 1       /* a lookup */
};

/* Callbacks of the inode cache; `data` is the lower inode. */
int tarn_inode_test(struct inode *inode, void *data);
int tarn_inode_set(struct inode *inode, void *data);
/*
 * Binds `dentry`, whose lower path has been set, to the upper inode of lower_dentry's inode, found
 * or made, and refreshes the upper copy of its attributes. -ESTALE if the lower inode is being
 * freed, -EACCES if no upper inode can be made.
 *
 * If a directory already has a dentry at another place, a look-up moves that one to the place of
 * `dentry`, whose parent is locked, and returns it in *moved with a reference; `dentry` stays
 * unbound. -ESTALE if it is in use and cannot be moved now, -EBUSY if something is mounted on it,
 * -ELOOP if `dentry` is below it.
 */
[[nodiscard]] int tarn_interpose(struct dentry *lower_dentry, struct dentry *dentry,
                                 struct super_block *sb, enum tarn_interpose_flag flag,
                                 struct dentry **moved = nullptr);
void tarn_interpose_init(void);

/* inode.cc */
extern struct inode_operations tarn_dir_iops;
extern struct inode_operations tarn_symlink_iops;
extern struct inode_operations tarn_main_iops;
ssize_t tarn_getxattr_lower(struct dentry *lower_dentry, const char *name, void *value,
                            size_t size);

/* Copies the times of a lower inode. */
void tarn_copy_attr_times(struct inode *inode, const struct inode *lower);
/* Copies its times, size and blocks. */
void tarn_copy_attr_times_and_size(struct inode *inode, struct inode *lower);
/* Copies all but its size and blocks. */
void tarn_copy_attr_all(struct inode *inode, const struct inode *lower);

/* file.cc */
extern const struct file_operations tarn_main_fops;
extern const struct file_operations tarn_dir_fops;

/* mmap.cc */
extern const struct address_space_operations tarn_aops;
int tarn_write_lower(struct inode *inode, char *buffer, loff_t offset, size_t size);
int tarn_write_lower_page_segment(struct inode *inode, struct page *page, size_t offset_in_page,
                                  size_t size);
int tarn_read_lower(char *buffer, loff_t offset, size_t size, struct inode *inode);
int tarn_read_lower_page_segment(struct page *page, pgoff_t index, size_t offset_in_page,
                                 size_t size, struct inode *inode);
struct page *tarn_get_locked_page(struct file *file, pgoff_t index);

#endif
