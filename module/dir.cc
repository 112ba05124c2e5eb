// SPDX-License-Identifier: GPL-2.0
#include "dir_set.h"

#include "ox_uuid.h"

char mirrord_full_name[OX_DAEMON_PATH_LEN];

static struct kmem_cache *dirnode_cachep;
static struct dir_set dirset;

struct dir_set *get_dir_set(void) {
  return &dirset;
}

/* ---- nodes ---- */

void dir_node_get(struct dir_node *node) {
  atomic_inc(&node->refcnt);
}

void dir_node_put(struct dir_node *node) {
  if (atomic_dec_and_test(&node->refcnt)) free_dirnode(node);
}

void free_dirnode(struct dir_node *node) {
  if (node) kmem_cache_free(dirnode_cachep, node);
}

/* ---- the set ---- */

typedef ox_removed<struct dir_node> removed_dirs;

int dir_add(const void __user *record, unsigned length) {
  const unsigned size = sizeof(struct dir);
  if (length != size) {
    printk("dir_add: size %d != %d\n", length, size);
    return OX_ERR_SIZE;
  }
  kmem_owner<struct dir_node> node(dirnode_cachep, static_cast<struct dir_node *>(kmem_cache_zalloc(
                                                       dirnode_cachep, GFP_KERNEL)));
  if (!node) {
    printk("dir_add: kmem_cache_zalloc dirnode_cachep err\n");
    return OX_ERR_NOMEM;
  }
  INIT_LIST_HEAD(&node->list);
  INIT_LIST_HEAD(&node->aux_list);
  atomic_set(&node->refcnt, 2); /* the list's and its maker's */
  spin_lock_init(&node->node_lock);
  const unsigned long left = copy_from_user(&node->dir, record, size);
  if (left) {
    printk("dir_add: copy_from_user err, ret=%d, %d\n", static_cast<int>(left), size);
    return static_cast<int>(left);
  }
  node->dir.repdir[OX_REPDIR_LEN - 1] = '\0';
  char text[OX_UUID_TEXT];
  uuid_unparse_upper(node->dir.uuid, text);
  printk("dir_add: %s, %s\n", text, node->dir.repdir);

  removed_dirs removed;
  {
    write_guard guard(dirset.rwlock);
    removed.take_flushed_locked(dirset);
    if (dirset.find_locked(node->dir.uuid)) return OX_ERR_EXIST;
    list_add_tail(&node->list, &dirset.head);
    ++dirset.dirnum;
  }
  dir_node_put(node.release());
  return 0;
}

int dir_del(const void __user *record, unsigned length) {
  if (length != sizeof(struct dir)) return OX_ERR_REQUEST;
  uuid_t uuid;
  const unsigned long left = copy_from_user(uuid, record, sizeof(uuid));
  if (left) return static_cast<int>(left);
  dir_ref node(dirset.find(uuid));
  if (!node) return OX_ERR_NOENT;
  char text[OX_UUID_TEXT];
  uuid_unparse_upper(node->dir.uuid, text);
  printk("dir_del: %s, %s\n", text, node->dir.repdir);
  return dir_delnode_fromlist(node.get());
}

int dir_delnode_fromlist(struct dir_node *node) {
  removed_dirs removed;
  write_guard guard(dirset.rwlock);
  removed.take_flushed_locked(dirset);
  struct dir_node *listed;
  list_for_each_entry(listed, &dirset.head, list) {
    if (listed != node) continue;
    --dirset.dirnum;
    removed.take_locked(node);
    break;
  }
  return 0;
}

int dir_flush(int) {
  {
    read_guard guard(dirset.rwlock);
    dirset.flushed.detach(&dirset.head, [](struct list_head *entry) {
      char text[OX_UUID_TEXT];
      uuid_unparse_upper(list_entry(entry, struct dir_node, list)->dir.uuid, text);
      printk("dir_flush: del dir %s.\n", text);
      ox_store(dirset.dirnum, dirset.dirnum - 1);
    });
  }
  removed_dirs removed;
  write_try_guard guard(dirset.rwlock);
  if (guard) removed.take_flushed_locked(dirset);
  return 0;
}

int dir_setmirrord(const char __user *path, unsigned length) {
  if (length == 0) return 0;
  char name[OX_DAEMON_PATH_LEN];
  const long copied = strncpy_from_user(name, path, sizeof(name));
  if (copied < 0) return static_cast<int>(copied);
  name[sizeof(name) - 1] = '\0';
  unsigned i = 0;
  do {
    ox_store(mirrord_full_name[i], name[i]);
  } while (name[i++]);
  return static_cast<int>(length);
}

/* ---- the rule about renames ---- */

namespace {

/* Does `path` begin with a replicated directory's path? A separator need not follow. */
bool in_replicated_directory(const char *path) {
  read_guard guard(dirset.rwlock);
  for (struct list_head *p = ox_first(&dirset.head); p != &dirset.head; p = p->next) {
    const struct dir_node *node = list_entry(p, struct dir_node, list);
    if (!strncmp(path, node->dir.repdir, strnlen(node->dir.repdir, sizeof(node->dir.repdir))))
      return true;
  }
  return false;
}

/* The calling task's program: its dentry and mount, with a reference on each. */
class task_program {
 public:
  task_program() {
    struct mm_struct *mm = get_task_mm(current);
    if (!mm) return;
    down_read(&mm->mmap_sem);
    for (struct vm_area_struct *vma = mm->mmap; vma; vma = vma->vm_next) {
      if ((vma->vm_flags & VM_EXECUTABLE) && vma->vm_file) {
        mnt_ = mntget(vma->vm_file->f_vfsmnt);
        dentry_ = dget(vma->vm_file->f_dentry);
        break;
      }
    }
    up_read(&mm->mmap_sem);
    mmput(mm);
  }
  ~task_program() {
    if (dentry_) dput(dentry_);
    if (mnt_) mntput(mnt_);
  }
  task_program(const task_program &) = delete;
  task_program &operator=(const task_program &) = delete;

  /* Its path from the root of the namespace; false if it does not fit. Empty for a kernel
   * thread. */
  template <size_t N>
  bool path(char (&text)[N]) const {
    char scratch[N];
    memset(text, 0, N);
    memset(scratch, 0, N);
    spin_guard guard(dcache_lock); /* keeps the names and parents on the way */
    struct dentry *dentry = dentry_;
    struct vfsmount *mnt = mnt_;
    while (dentry && mnt) {
      if (dentry != mnt->mnt_root && dentry != dentry->d_parent) {
        const unsigned char *name = dentry->d_name.name;
        if (!name) break;
        if (snprintf(scratch, N, "/%s%s", name, text) >= static_cast<int>(N)) return false;
        strcpy(text, scratch);
        dentry = dentry->d_parent;
      } else {
        if (mnt->mnt_parent == mnt) break;
        dentry = mnt->mnt_mountpoint;
        mnt = mnt->mnt_parent;
      }
    }
    return true;
  }

 private:
  struct dentry *dentry_ = nullptr;
  struct vfsmount *mnt_ = nullptr;
};

/* Is it the daemon's path? That may be set concurrently. */
bool is_daemon_path(const char *program) {
  for (const char &byte : mirrord_full_name) {
    if (ox_load(byte) != *program) return false;
    if (!*program++) return true;
  }
  return false;
}

bool current_is_daemon() {
  char program[128];
  return task_program().path(program) && is_daemon_path(program);
}

}  // namespace

bool dir_set_is_empty(void) {
  return ox_first(&dirset.head) == &dirset.head;
}

bool dir_refuses_rename(const char *path) {
  if (!in_replicated_directory(path) || current_is_daemon()) return false;
  printk("tarn_rename:block %s\n", path);
  return true;
}

/* ---- socket options ---- */

int do_dir_set_ctl(struct sock *, int code, void __user *user, unsigned int length) {
  if (!capable(CAP_NET_ADMIN)) return -EPERM;
  switch (code) {
    case OX_SO_DIR_ADD:
      return dir_add(user, length);
    case OX_SO_DIR_DEL:
      return dir_del(user, length);
    case OX_SO_DIR_FLUSH:
      return dir_flush(0);
    case OX_SO_SET_DAEMON:
      return dir_setmirrord(static_cast<const char __user *>(user), length);
    default:
      printk("do_dir_set_ctl: unknown request %i\n", code);
      return OX_ERR_REQUEST;
  }
}

static struct nf_sockopt_ops dir_sockopts = {
    .list = {},
    .pf = PF_INET,
    .set_optmin = OX_SO_DIR_SET_FIRST,
    .set_optmax = OX_SO_DIR_SET_LAST + 1,
    .set = do_dir_set_ctl,
    .compat_set = nullptr,
    .get_optmin = 0,
    .get_optmax = 0,
    .get = nullptr,
    .compat_get = nullptr,
    .use = 0,
    .cleanup_task = nullptr,
};

int dir_init(void) {
  dirset.init();
  dirset.dirnum = 0;
  dirnode_cachep = kmem_cache_create("dirnode_cachep", sizeof(struct dir_node), 0,
                                     SLAB_RECLAIM_ACCOUNT | SLAB_MEM_SPREAD, nullptr, nullptr);
  if (!dirnode_cachep) {
    printk("dir_init: kmem_cache_create error.\n");
    return OX_ERR_NOMEM;
  }
  const int result = nf_register_sockopt(&dir_sockopts);
  if (result) {
    printk("dir_init: register sockopt error!\n");
    kmem_cache_destroy(dirnode_cachep);
    return result;
  }
  printk("Register dir sockopt success\n");
  return 0;
}

void dir_exit(void) {
  nf_unregister_sockopt(&dir_sockopts);
  printk("dir_exit: flush dirset\n");
  dir_flush(1);
  rwlock_init(&dirset.rwlock);
  kmem_cache_destroy(dirnode_cachep);
}
