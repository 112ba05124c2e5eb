/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The heart of the VFS: inodes, open files, super blocks, file system types, page-cache mappings,
 * their tables of operations, and the calls that work on them.
 *
 * Lifetimes. i_count counts an inode's references: each of its dentries has one. f_count counts a
 * file's references; a file has references on its dentry and mount. s_count keeps a super block in
 * memory; it is mounted while s_active is not 0.
 *
 * Locks, outermost first: s_umount; i_mutex (parent before child); i_alloc_sem; page lock;
 * dcache_lock; d_lock; inode_lock; tree_lock. inode_lock protects i_state, i_list and i_hash
 * (linux/writeback.h). Each file system type has a lock class of its own for the i_mutex of its
 * inodes.
 *
 * Unless a comment says otherwise, a call may sleep and returns 0 or a negative error number.
 */
#ifndef UKERN_LINUX_FS_H
#define UKERN_LINUX_FS_H

#include <linux/limits.h>
#include <linux/linkage.h>
#include <linux/types.h>
#include <linux/kernel.h>
#include <linux/list.h>
#include <linux/spinlock.h>
#include <linux/mutex.h>
#include <linux/rwsem.h>
#include <linux/lockdep.h>
#include <linux/wait.h>
#include <linux/time.h>
#include <linux/kdev_t.h>
#include <linux/dcache.h>
#include <linux/stat.h>
#include <linux/radix-tree.h>
#include <linux/fcntl.h>
#include <linux/init.h>
#include <linux/sched.h>
#include <linux/slab.h>
#include <linux/err.h>
#include <linux/errno.h>
#include <linux/module.h>
#include <linux/mount.h>
#include <asm/atomic.h>
#include <asm/semaphore.h>

#ifdef __cplusplus
extern "C" {
#endif

struct address_space;
struct backing_dev_info;
struct block_device;
struct file;
struct inode;
struct iovec;
struct kiocb;
struct kstatfs;
struct nameidata;
struct page;
struct seq_file;
struct super_block;
struct reflog;
struct vfsmount;
struct vm_area_struct;
struct writeback_control;

#define SEEK_SET 0
#define SEEK_CUR 1
#define SEEK_END 2

#define MAY_EXEC 1
#define MAY_WRITE 2
#define MAY_READ 4
#define MAY_APPEND 8

#define FMODE_READ 1
#define FMODE_WRITE 2
#define FMODE_LSEEK 4
#define FMODE_PREAD 8
#define FMODE_PWRITE FMODE_PREAD

#define READ 0
#define WRITE 1

/* fs_flags of a file system type */
#define FS_REQUIRES_DEV 1
#define FS_BINARY_MOUNTDATA 2
#define FS_REVAL_DOT 16384 /* "." and ".." are revalidated too */

/* Flags of mount(2); those of the super block in s_flags */
#define MS_RDONLY 1
#define MS_NOSUID 2
#define MS_NODEV 4
#define MS_NOEXEC 8
#define MS_SYNCHRONOUS 16
#define MS_REMOUNT 32
#define MS_MANDLOCK 64
#define MS_DIRSYNC 128
#define MS_NOATIME 1024
#define MS_NODIRATIME 2048
#define MS_BIND 4096
#define MS_MOVE 8192
#define MS_REC 16384
#define MS_SILENT 32768
#define MS_POSIXACL (1 << 16)
#define MS_UNBINDABLE (1 << 17)
#define MS_PRIVATE (1 << 18)
#define MS_SLAVE (1 << 19)
#define MS_SHARED (1 << 20)
#define MS_ACTIVE (1 << 30)
#define MS_NOUSER (1 << 31)

#define MS_RMT_MASK (MS_RDONLY | MS_SYNCHRONOUS | MS_MANDLOCK)

#define MS_MGC_VAL 0xC0ED0000
#define MS_MGC_MSK 0xffff0000

/* Flags of umount2(2) */
#define MNT_FORCE 0x00000001
#define MNT_DETACH 0x00000002
#define MNT_EXPIRE 0x00000004

/* i_flags */
#define S_SYNC 1
#define S_NOATIME 2
#define S_APPEND 4
#define S_IMMUTABLE 8
#define S_DEAD 16 /* a removed directory that is still in use */
#define S_NOQUOTA 32
#define S_DIRSYNC 64
#define S_NOCMTIME 128
#define S_SWAPFILE 256
#define S_PRIVATE 512

#define __IS_FLG(inode, flg) ((inode)->i_sb->s_flags & (flg))

#define IS_RDONLY(inode) ((inode)->i_sb->s_flags & MS_RDONLY)
#define IS_SYNC(inode) (__IS_FLG(inode, MS_SYNCHRONOUS) || ((inode)->i_flags & S_SYNC))
#define IS_DIRSYNC(inode) \
  (__IS_FLG(inode, MS_SYNCHRONOUS | MS_DIRSYNC) || ((inode)->i_flags & (S_SYNC | S_DIRSYNC)))
#define IS_APPEND(inode) ((inode)->i_flags & S_APPEND)
#define IS_IMMUTABLE(inode) ((inode)->i_flags & S_IMMUTABLE)
#define IS_POSIXACL(inode) __IS_FLG(inode, MS_POSIXACL)
#define IS_DEADDIR(inode) ((inode)->i_flags & S_DEAD)
#define IS_NOCMTIME(inode) ((inode)->i_flags & S_NOCMTIME)
#define IS_SWAPFILE(inode) ((inode)->i_flags & S_SWAPFILE)
#define IS_PRIVATE(inode) ((inode)->i_flags & S_PRIVATE)

#define special_file(m) (S_ISCHR(m) || S_ISBLK(m) || S_ISFIFO(m) || S_ISSOCK(m))

/* ia_valid: the fields of a struct iattr that are set */
#define ATTR_MODE 1
#define ATTR_UID 2
#define ATTR_GID 4
#define ATTR_SIZE 8
#define ATTR_ATIME 16
#define ATTR_MTIME 32
#define ATTR_CTIME 64
#define ATTR_ATIME_SET 128
#define ATTR_MTIME_SET 256
#define ATTR_FORCE 512
#define ATTR_ATTR_FLAG 1024
#define ATTR_KILL_SUID 2048
#define ATTR_KILL_SGID 4096
#define ATTR_FILE 8192

struct iattr {
  unsigned int ia_valid;
  umode_t ia_mode;
  uid_t ia_uid;
  gid_t ia_gid;
  loff_t ia_size;
  struct timespec ia_atime;
  struct timespec ia_mtime;
  struct timespec ia_ctime;
  struct file *ia_file; /* with ATTR_FILE: the open file through which the change is made */
};

/* Results of some address space operations besides errors. */
enum positive_aop_returns {
  AOP_WRITEPAGE_ACTIVATE = 0x80000, /* writepage: not written, and the page is still locked */
  AOP_TRUNCATED_PAGE = 0x80001, /* the page was unlocked and may be truncated: look it up again */
};

struct address_space_operations {
  int (*writepage)(struct page *page, struct writeback_control *wbc); /* unlocks the page */
  int (*readpage)(struct file *, struct page *);                      /* unlocks the page */
  int (*writepages)(struct address_space *, struct writeback_control *);
  int (*set_page_dirty)(struct page *page); /* non-zero when it was clean */
  int (*prepare_write)(struct file *, struct page *, unsigned, unsigned);
  int (*commit_write)(struct file *, struct page *, unsigned, unsigned);
  sector_t (*bmap)(struct address_space *, sector_t);
  void (*invalidatepage)(struct page *, unsigned long);
  int (*releasepage)(struct page *, gfp_t);
  ssize_t (*direct_IO)(int, struct kiocb *, const struct iovec *iov, loff_t offset,
                       unsigned long nr_segs);
};

#define PAGECACHE_TAG_DIRTY 0
#define PAGECACHE_TAG_WRITEBACK 1

/* The cached pages of one inode. */
struct address_space {
  struct inode *host;
  struct radix_tree_root page_tree; /* under tree_lock */
  rwlock_t tree_lock;
  unsigned int i_mmap_writable; /* shared mappings that may write; under i_mmap_lock */
  struct list_head i_mmap;      /* every mapping of the file; under i_mmap_lock */
  spinlock_t i_mmap_lock;
  unsigned int truncate_count;
  unsigned long nrpages;   /* under tree_lock */
  pgoff_t writeback_index; /* where write-back continues */
  const struct address_space_operations *a_ops;
  unsigned long flags; /* gfp mask and AS_* bits */
  struct backing_dev_info *backing_dev_info;
  spinlock_t private_lock;
  struct list_head private_list;
} __attribute__((aligned(sizeof(long))));

int mapping_tagged(struct address_space *mapping, int tag);

static inline int mapping_mapped(struct address_space *mapping) {
  return !list_empty(&mapping->i_mmap);
}

struct inode {
  struct hlist_node i_hash;
  struct list_head i_list;    /* unused, in use, or one of its super block's dirty lists */
  struct list_head i_sb_list; /* in s_inodes; under inode_lock */
  struct list_head i_dentry;  /* its dentries; under dcache_lock */
  unsigned long i_ino;
  atomic_t i_count;
  ukern_field<umode_t> i_mode;
  ukern_field<unsigned int> i_nlink;
  ukern_field<uid_t> i_uid;
  ukern_field<gid_t> i_gid;
  ukern_field<dev_t> i_rdev;
  loff_t i_size; /* i_size_read, i_size_write */
  struct timespec i_atime;
  struct timespec i_mtime;
  struct timespec i_ctime;
  ukern_field<unsigned int> i_blkbits;
  ukern_field<unsigned long> i_blksize;
  ukern_field<unsigned long> i_version;
  ukern_field<blkcnt_t> i_blocks; /* of 512 bytes; with i_bytes under i_lock */
  unsigned short i_bytes;
  spinlock_t i_lock;
  struct mutex i_mutex;
  struct rw_semaphore i_alloc_sem; /* excludes truncation and direct I/O */
  ukern_field<struct inode_operations *, UKERN_PUBLISHED> i_op;
  ukern_field<const struct file_operations *, UKERN_PUBLISHED> i_fop;
  struct super_block *i_sb;
  struct address_space *i_mapping;
  struct address_space i_data;
  __u32 i_generation;
  ukern_field<unsigned long> i_state;
  unsigned long dirtied_when;        /* jiffies of the first dirtying */
  ukern_field<unsigned int> i_flags; /* S_* */
  atomic_t i_writecount;             /* files open for writing; negative: writing is denied */
  union {
    void *generic_ip; /* the file system's data */
  } u;
  ukern_field<struct uk_node *> i_nodes; /* the hosting program's handles; see ukern/door/node.h */
  struct reflog *i_reflog;               /* debug builds: log of the references */
};

/* Subclasses of i_mutex, in the order in which they are taken: parent, child, normal, xattr, quota.
 */
enum inode_i_mutex_lock_class {
  I_MUTEX_NORMAL,
  I_MUTEX_PARENT,
  I_MUTEX_CHILD,
  I_MUTEX_XATTR,
  I_MUTEX_QUOTA
};

/* The size changes under i_mutex but is read without it. */
static inline loff_t i_size_read(struct inode *inode) {
  return __atomic_load_n(&inode->i_size, __ATOMIC_RELAXED);
}

static inline void i_size_write(struct inode *inode, loff_t i_size) {
  __atomic_store_n(&inode->i_size, i_size, __ATOMIC_RELAXED);
}

static inline unsigned iminor(struct inode *inode) {
  return MINOR(inode->i_rdev);
}
static inline unsigned imajor(struct inode *inode) {
  return MAJOR(inode->i_rdev);
}

/* Read-ahead state of the page cache. */
struct file_ra_state {
  unsigned long ra_pages;  /* longest window, in pages */
  unsigned long prev_page; /* last page read */
};

struct file {
  union {
    struct list_head fu_list; /* in s_files; under files_lock */
  } f_u;
  struct dentry *f_dentry;
  struct vfsmount *f_vfsmnt;
  const struct file_operations *f_op;
  atomic_t f_count;
  unsigned int f_flags; /* O_* */
  mode_t f_mode;        /* FMODE_* */
  loff_t f_pos;
  unsigned int f_uid, f_gid;
  struct file_ra_state f_ra;
  unsigned long f_version;
  void *private_data;
  struct address_space *f_mapping;
  struct reflog *f_reflog; /* debug builds: log of the references */
};

extern spinlock_t files_lock;

#if UKERN_DEBUG
/* Logs a change of the file's count. */
void ukern_file_ref(struct file *file, int change);
#else
static inline void ukern_file_ref(struct file *, int) {}
#endif

static inline void get_file(struct file *file) {
  atomic_inc(&file->f_count);
  ukern_file_ref(file, 1);
}
#define file_count(x) atomic_read(&(x)->f_count)

#define MAX_NON_LFS ((1UL << 31) - 1)
#define MAX_LFS_FILESIZE 0x7fffffffffffffffUL

typedef struct files_struct *fl_owner_t;

/* Called by readdir for each entry; non-zero: no room; readdir stops and passes that entry again
 * next time. */
typedef int (*filldir_t)(void *, const char *, int, loff_t, ino_t, unsigned);

#define DT_UNKNOWN 0
#define DT_FIFO 1
#define DT_CHR 2
#define DT_DIR 4
#define DT_BLK 6
#define DT_REG 8
#define DT_LNK 10
#define DT_SOCK 12
#define DT_WHT 14

/* State of a read through the page cache, and the function that takes each page. */
typedef struct {
  size_t written;
  size_t count;
  union {
    char __user *buf;
    void *data;
  } arg;
  int error;
} read_descriptor_t;

typedef int (*read_actor_t)(read_descriptor_t *, struct page *, unsigned long, unsigned long);

struct file_operations {
  struct module *owner;
  loff_t (*llseek)(struct file *, loff_t, int);
  ssize_t (*read)(struct file *, char __user *, size_t, loff_t *);
  ssize_t (*aio_read)(struct kiocb *, char __user *, size_t, loff_t);
  ssize_t (*write)(struct file *, const char __user *, size_t, loff_t *);
  ssize_t (*aio_write)(struct kiocb *, const char __user *, size_t, loff_t);
  int (*readdir)(struct file *, void *, filldir_t);
  int (*ioctl)(struct inode *, struct file *, unsigned int, unsigned long);
  int (*mmap)(struct file *, struct vm_area_struct *);
  int (*open)(struct inode *, struct file *);
  int (*flush)(struct file *, fl_owner_t id);
  int (*release)(struct inode *, struct file *);
  int (*fsync)(struct file *, struct dentry *, int datasync); /* under i_mutex */
  int (*fasync)(int, struct file *, int);
  ssize_t (*sendfile)(struct file *, loff_t *, size_t, read_actor_t, void *);
};

/*
 * create to rename are called with i_mutex of the directories and of a victim held; setattr,
 * truncate, setxattr and removexattr with that of the inode; the rest with none.
 */
struct inode_operations {
  int (*create)(struct inode *, struct dentry *, int, struct nameidata *);
  struct dentry *(*lookup)(struct inode *, struct dentry *, struct nameidata *);
  int (*link)(struct dentry *, struct inode *, struct dentry *);
  int (*unlink)(struct inode *, struct dentry *);
  int (*symlink)(struct inode *, struct dentry *, const char *);
  int (*mkdir)(struct inode *, struct dentry *, int);
  int (*rmdir)(struct inode *, struct dentry *);
  int (*mknod)(struct inode *, struct dentry *, int, dev_t);
  int (*rename)(struct inode *, struct dentry *, struct inode *, struct dentry *);
  int (*readlink)(struct dentry *, char __user *, int);
  void *(*follow_link)(struct dentry *, struct nameidata *);
  void (*put_link)(struct dentry *, struct nameidata *, void *);
  void (*truncate)(struct inode *);
  int (*permission)(struct inode *, int, struct nameidata *);
  int (*setattr)(struct dentry *, struct iattr *);
  int (*getattr)(struct vfsmount *mnt, struct dentry *, struct kstat *);
  int (*setxattr)(struct dentry *, const char *, const void *, size_t, int);
  ssize_t (*getxattr)(struct dentry *, const char *, void *, size_t);
  ssize_t (*listxattr)(struct dentry *, char *, size_t);
  int (*removexattr)(struct dentry *, const char *);
};

struct super_operations {
  struct inode *(*alloc_inode)(struct super_block *sb);
  void (*destroy_inode)(struct inode *);
  void (*dirty_inode)(struct inode *);
  int (*write_inode)(struct inode *, int);
  void (*put_inode)(struct inode *);
  void (*drop_inode)(
      struct inode *); /* last reference: entered with inode_lock held, releases it */
  void (*delete_inode)(struct inode *);
  void (*put_super)(struct super_block *);
  void (*write_super)(struct super_block *);
  int (*sync_fs)(struct super_block *sb, int wait);
  int (*statfs)(struct dentry *, struct kstatfs *);
  int (*remount_fs)(struct super_block *, int *, char *);
  void (*clear_inode)(struct inode *);
  void (*umount_begin)(struct vfsmount *, int);
  int (*show_options)(struct seq_file *, struct vfsmount *);
};

#define S_BIAS (1 << 30)

struct super_block {
  struct list_head s_list; /* in super_blocks; under sb_lock, like s_count and s_instances */
  dev_t s_dev;
  unsigned long s_blocksize;
  unsigned char s_blocksize_bits;
  unsigned char s_dirt;
  unsigned long long s_maxbytes;
  struct file_system_type *s_type;
  struct super_operations *s_op;
  unsigned long s_flags; /* MS_* */
  unsigned long s_magic;
  struct dentry *s_root;
  struct rw_semaphore s_umount;
  struct mutex s_lock;
  int s_count;
  int s_syncing;
  int s_need_sync_fs;
  atomic_t s_active;

  struct list_head s_inodes; /* this and the next two: under inode_lock */
  struct list_head s_dirty;
  struct list_head s_io;
  struct list_head s_files; /* under files_lock */

  struct block_device *s_bdev;
  struct list_head s_instances;

  int s_frozen; /* SB_* */
  wait_queue_head_t s_wait_unfrozen;

  char s_id[32];
  void *s_fs_info;
  struct mutex s_vfs_rename_mutex; /* held during a rename between directories */
  u32 s_time_gran;                 /* of time stamps, in nanoseconds */
  struct reflog *s_reflog;         /* debug builds: log of s_active */
#if UKERN_DEBUG
  unsigned int ukern_depth; /* number of file systems below it, see lockdep.h */
#endif
};

extern struct list_head super_blocks;
extern spinlock_t sb_lock;
#define sb_entry(list) list_entry((list), struct super_block, s_list)

/* The current time in the file system's granularity. Does not sleep. */
struct timespec current_fs_time(struct super_block *sb);

enum { SB_UNFROZEN = 0, SB_FREEZE_WRITE = 1, SB_FREEZE_TRANS = 2 };

/* Sleeps, not interruptibly, while the file system is frozen to this level or deeper. */
#define vfs_check_frozen(sb, level) \
  wait_event((sb)->s_wait_unfrozen, (__atomic_load_n(&(sb)->s_frozen, __ATOMIC_RELAXED) < (level)))

struct file_system_type {
  const char *name;
  int fs_flags;
  int (*get_sb)(struct file_system_type *, int, const char *, void *, struct vfsmount *);
  void (*kill_sb)(struct super_block *);
  struct module *owner;
  struct file_system_type *next;
  struct list_head fs_supers;
  struct lock_class_key s_lock_key;
  struct lock_class_key s_umount_key;
};

/* ---- file system types and super blocks: ukern/vfs/{filesystems,super}.cc ---- */

/* -EBUSY when the name is taken (register) / -EINVAL when the type is not registered (unregister).
 */
int register_filesystem(struct file_system_type *);
int unregister_filesystem(struct file_system_type *);
/* The type of that name with a reference on its module, or NULL. */
struct file_system_type *get_fs_type(const char *name);

/* A new super block on an anonymous device for each call / one for all calls; `mnt` receives it and
 * its root. */
int get_sb_nodev(struct file_system_type *fs_type, int flags, void *data,
                 int (*fill_super)(struct super_block *, void *, int), struct vfsmount *mnt);
int get_sb_single(struct file_system_type *fs_type, int flags, void *data,
                  int (*fill_super)(struct super_block *, void *, int), struct vfsmount *mnt);
int simple_set_mnt(struct vfsmount *mnt, struct super_block *sb);
/* Finds (test) or makes (set) a super block; it comes with s_umount held for writing. ERR_PTR. */
struct super_block *sget(struct file_system_type *type, int (*test)(struct super_block *, void *),
                         int (*set)(struct super_block *, void *), void *data);
int set_anon_super(struct super_block *s, void *data);
/* Parts of a type's kill_sb. s_umount is held for writing and released. */
void generic_shutdown_super(struct super_block *sb);
void kill_anon_super(struct super_block *sb);
void kill_litter_super(struct super_block *sb); /* for trees that exist only in the dentry cache */
/* Drops an active reference of a super block; the last one shuts it down. s_umount is not held. */
void deactivate_super(struct super_block *sb);
int do_remount_sb(struct super_block *sb, int flags, void *data, int force);
int fs_may_remount_ro(struct super_block *);
void sync_supers(void);
void sync_filesystems(int wait);

/* ---- mounts: ukern/vfs/mount_tree.cc ---- */

/* A mount of the type, not attached. ERR_PTR. */
struct vfsmount *kern_mount(struct file_system_type *);
/* 1 if only the mount tree uses the mount. */
int may_umount(struct vfsmount *);
long do_mount(char *dev_name, char *dir_name, char *type, unsigned long flags, void *data);

/* ---- inodes: ukern/vfs/{inode,fs_writeback}.cc ---- */

/* i_state. I_LOCK: under I/O or being initialised, wait; I_NEW: not filled in yet; I_FREEING,
 * I_WILL_FREE: being freed. */
#define I_DIRTY_SYNC 1
#define I_DIRTY_DATASYNC 2
#define I_DIRTY_PAGES 4
#define __I_LOCK 3
#define I_LOCK (1 << __I_LOCK)
#define I_FREEING 16
#define I_CLEAR 32
#define I_NEW 64
#define I_WILL_FREE 128
#define I_DIRTY (I_DIRTY_SYNC | I_DIRTY_DATASYNC | I_DIRTY_PAGES)

struct inodes_stat_t {
  int nr_inodes;
  int nr_unused;
};
extern struct inodes_stat_t inodes_stat;

/* Initialises the memory of an inode: for alloc_inode or a cache's constructor. Does not sleep. */
void inode_init_once(struct inode *);
/* A new unhashed inode, count 1; NULL without memory. */
struct inode *new_inode(struct super_block *);
/*
 * Finds the inode that `test` accepts, waits until it is filled in, and takes a reference. If there
 * is none, adds a new one on which `set` succeeded, with I_NEW and I_LOCK, which the caller fills
 * in and unlocks. NULL: no memory or `set` failed. test and set run under inode_lock.
 */
struct inode *iget5_locked(struct super_block *, unsigned long hashval,
                           int (*test)(struct inode *, void *), int (*set)(struct inode *, void *),
                           void *);
void unlock_new_inode(struct inode *);
/* As iget5_locked, but only existing inodes; _nowait may return one that is not filled in yet. */
struct inode *ilookup5_nowait(struct super_block *sb, unsigned long hashval,
                              int (*test)(struct inode *, void *), void *data);
struct inode *ilookup5(struct super_block *sb, unsigned long hashval,
                       int (*test)(struct inode *, void *), void *data);
ino_t iunique(struct super_block *, ino_t max_reserved);
void __insert_inode_hash(struct inode *, unsigned long hashval);
void remove_inode_hash(struct inode *);
static inline void insert_inode_hash(struct inode *inode) {
  __insert_inode_hash(inode, inode->i_ino);
}
/* Takes a reference; NULL if the inode is being freed. Does not sleep. */
struct inode *igrab(struct inode *);
void __iget(struct inode *inode); /* under inode_lock */
void iput(struct inode *);
/* drop_inode for inodes not cached without users / cached while they have links. inode_lock is
 * held, and released. */
void generic_delete_inode(struct inode *inode);
void generic_drop_inode(struct inode *inode);
void clear_inode(struct inode *);
void destroy_inode(struct inode *);
/* Frees the unused inodes of a super block; non-zero when busy ones are left. */
int invalidate_inodes(struct super_block *);
void init_special_inode(struct inode *, umode_t, dev_t);
extern const struct file_operations def_chr_fops;
extern const struct file_operations def_blk_fops;
extern const struct file_operations def_fifo_fops;
extern const struct file_operations bad_sock_fops;

void __mark_inode_dirty(struct inode *, int);
static inline void mark_inode_dirty(struct inode *inode) {
  __mark_inode_dirty(inode, I_DIRTY);
}
static inline void mark_inode_dirty_sync(struct inode *inode) {
  __mark_inode_dirty(inode, I_DIRTY_SYNC);
}
void touch_atime(struct vfsmount *mnt, struct dentry *dentry);
static inline void file_accessed(struct file *file) {
  if (!(file->f_flags & O_NOATIME)) touch_atime(file->f_vfsmnt, file->f_dentry);
}
void file_update_time(struct file *file);
int write_inode_now(struct inode *, int sync);
#define OSYNC_METADATA (1 << 0)
#define OSYNC_DATA (1 << 1)
#define OSYNC_INODE (1 << 2)
int generic_osync_inode(struct inode *, struct address_space *, int what);

/* ---- dentries, see linux/dcache.h ---- */

/* Unhashes a directory about to be removed if only the caller uses it. Takes a reference. */
void dentry_unhash(struct dentry *dentry);
int is_subdir(struct dentry *child, struct dentry *parent);
static inline ino_t parent_ino(struct dentry *dentry) {
  ino_t res;
  spin_lock(&dentry->d_lock);
  res = dentry->d_parent->d_inode->i_ino;
  spin_unlock(&dentry->d_lock);
  return res;
}

/* ---- calls on names, open files and attributes:
 * ukern/vfs/{namei,open,read_write,attr,stat,...}.cc ---- */

int permission(struct inode *, int mask, struct nameidata *);
int vfs_permission(struct nameidata *, int mask);
int generic_permission(struct inode *, int mask, int (*check_acl)(struct inode *, int));

/* The caller holds i_mutex of the directories. */
int vfs_create(struct inode *, struct dentry *, int mode, struct nameidata *);
int vfs_mkdir(struct inode *, struct dentry *, int mode);
int vfs_mknod(struct inode *, struct dentry *, int mode, dev_t);
int vfs_symlink(struct inode *, struct dentry *, const char *, int mode);
int vfs_link(struct dentry *, struct inode *, struct dentry *);
int vfs_rmdir(struct inode *, struct dentry *);
int vfs_unlink(struct inode *, struct dentry *);
int vfs_rename(struct inode *, struct dentry *, struct inode *, struct dentry *);

int vfs_readlink(struct dentry *, char __user *, int buflen, const char *link);
int generic_readlink(struct dentry *, char __user *, int buflen);
int may_open(struct nameidata *, int acc_mode, int flag);
struct dentry *lookup_create(struct nameidata *nd, int is_dir);

int get_write_access(struct inode *);
int deny_write_access(struct file *);
static inline void put_write_access(struct inode *inode) {
  atomic_dec(&inode->i_writecount);
}
static inline void allow_write_access(struct file *file) {
  if (file) atomic_inc(&file->f_dentry->d_inode->i_writecount);
}

struct file *get_empty_filp(void);
void file_move(struct file *f, struct list_head *list);
void file_kill(struct file *f);
struct file *filp_open(const char *, int flags, int mode);
/* Takes over one reference on the dentry and one on the mount, also on failure. ERR_PTR. */
struct file *dentry_open(struct dentry *, struct vfsmount *, int flags);
int filp_close(struct file *, fl_owner_t id);
char *getname(const char __user *);
#define putname(name) __putname(name)
int do_truncate(struct dentry *, loff_t length, unsigned int time_attrs, struct file *filp);
int vfs_statfs(struct dentry *, struct kstatfs *);
int generic_file_open(struct inode *inode, struct file *filp);
int nonseekable_open(struct inode *inode, struct file *filp);

int rw_verify_area(int read_write, struct file *, loff_t *, size_t);
ssize_t vfs_read(struct file *, char __user *, size_t, loff_t *);
ssize_t vfs_write(struct file *, const char __user *, size_t, loff_t *);
ssize_t do_sync_read(struct file *, char __user *, size_t, loff_t *);
ssize_t do_sync_write(struct file *, const char __user *, size_t, loff_t *);
loff_t vfs_llseek(struct file *, loff_t offset, int origin);
loff_t default_llseek(struct file *, loff_t offset, int origin);
loff_t no_llseek(struct file *, loff_t offset, int origin);
loff_t generic_file_llseek(struct file *, loff_t offset, int origin);
int vfs_readdir(struct file *, filldir_t, void *);
ssize_t generic_read_dir(struct file *, char __user *, size_t, loff_t *); /* -EISDIR */

int inode_change_ok(struct inode *, struct iattr *);
int __must_check inode_setattr(struct inode *, struct iattr *);
int notify_change(struct dentry *, struct iattr *);
void generic_fillattr(struct inode *, struct kstat *);
int vfs_getattr(struct vfsmount *, struct dentry *, struct kstat *);

/* ---- page cache: ukern/mm/ ---- */

int generic_file_mmap(struct file *, struct vm_area_struct *);
int generic_write_checks(struct file *, loff_t *pos, size_t *count, int isblk);
ssize_t generic_file_read(struct file *, char __user *, size_t, loff_t *);
ssize_t generic_file_write(struct file *, const char __user *, size_t, loff_t *);
ssize_t generic_file_aio_read(struct kiocb *, char __user *, size_t, loff_t);
ssize_t generic_file_aio_write(struct kiocb *, const char __user *, size_t, loff_t);
ssize_t generic_file_direct_write(struct kiocb *, const struct iovec *, unsigned long *, loff_t,
                                  loff_t *, size_t, size_t);
ssize_t generic_file_buffered_write(struct kiocb *, const struct iovec *, unsigned long, loff_t,
                                    loff_t *, size_t, ssize_t);
ssize_t generic_file_sendfile(struct file *, loff_t *, size_t, read_actor_t, void *);
void do_generic_mapping_read(struct address_space *, struct file_ra_state *, struct file *,
                             loff_t *, read_descriptor_t *, read_actor_t);
int file_read_actor(read_descriptor_t *, struct page *, unsigned long, unsigned long);
void file_ra_state_init(struct file_ra_state *, struct address_space *);
int remove_suid(struct dentry *);
int filemap_fdatawrite(struct address_space *);
int filemap_fdatawait(struct address_space *);
int filemap_write_and_wait(struct address_space *);
int wait_on_page_writeback_range(struct address_space *, pgoff_t start, pgoff_t end);
unsigned long invalidate_mapping_pages(struct address_space *, pgoff_t start, pgoff_t end);
unsigned long invalidate_inode_pages(struct address_space *);
long do_fsync(struct file *file, int datasync);

#ifdef __cplusplus
}
#endif
#endif
