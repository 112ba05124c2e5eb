// SPDX-License-Identifier: GPL-2.0
// Task structures: tables, lifetime, the program of a task.
#include "ukern/sched/task.h"

#include <linux/hash.h>
#include <linux/mm.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <asm/uaccess.h>

#include "ukern/mm/fault.h"
#include "ukern/sync/guard.h"
#include "ukern/sync/report.h"
#include "ukern/vfs/exec.h"

namespace {

constexpr unsigned kPidBits = 8;
// Above every process id of the host, so that kernel threads and programs never share one.
constexpr int kFirstKernelPid = 1 << 22;

kmem_cache_t *task_cachep;

// Both under tasklist_lock.
struct hlist_head pid_hash[1u << kPidBits];
LIST_HEAD(all_tasks);

int last_kernel_pid = kFirstKernelPid;

struct group_info no_groups = {.ngroups = 0, .usage = ATOMIC_INIT(1), .gids = {}};

struct hlist_head *pid_bucket(int pid) {
  return &pid_hash[hash_long(static_cast<unsigned long>(static_cast<unsigned>(pid)), kPidBits)];
}

void set_comm_from_path(struct task_struct *task, const char *path) {
  const char *slash = strrchr(path, '/');
  strlcpy(task->comm, slash ? slash + 1 : path, TASK_COMM_LEN);
}

bool same_text(const char *a, const char *b) {
  return a && b ? !strcmp(a, b) : a == b;
}

}  // namespace

extern "C" {

__thread struct task_struct *ukern_current_task __attribute__((tls_model("initial-exec")));
struct task_struct init_task;
struct fs_struct init_fs = {.count = ATOMIC_INIT(1),
                            .lock = __RW_LOCK_UNLOCKED(init_fs.lock),
                            .umask = 0,
                            .root = nullptr,
                            .pwd = nullptr,
                            .rootmnt = nullptr,
                            .pwdmnt = nullptr};
DEFINE_RWLOCK(tasklist_lock);

void ukern_set_current(struct task_struct *task) {
  ukern_current_task = task;
}

void ukern_task_setup(struct task_struct *task, pid_t pid, const char *name) {
  memset(task, 0, sizeof(*task));
  atomic_set(&task->usage, 1);
  task->pid = task->tgid = pid;
  strlcpy(task->comm, name, TASK_COMM_LEN);
  task->group_info = &no_groups;
  get_group_info(task->group_info);
  cap_set_full(task->cap_effective);
  cap_set_full(task->cap_permitted);
  task->fs = &init_fs;
  task->signal = &task->own_signal;
  for (struct rlimit &limit : task->own_signal.rlim)
    limit = {.rlim_cur = RLIM_INFINITY, .rlim_max = RLIM_INFINITY};
  task->sighand = &task->own_sighand;
  spin_lock_init(&task->own_sighand.siglock);
  spin_lock_init(&task->alloc_lock);
  sigfillset(&task->blocked);
  INIT_HLIST_NODE(&task->pid_link);
  INIT_LIST_HEAD(&task->task_link);
  task->addr_limit = KERNEL_DS;
}

void ukern_task_hash(struct task_struct *task) {
  WriteGuard guard(tasklist_lock);
  hlist_add_head(&task->pid_link, pid_bucket(task->pid));
  list_add_tail(&task->task_link, &all_tasks);
}

void ukern_task_unhash(struct task_struct *task) {
  WriteGuard guard(tasklist_lock);
  hlist_del_init(&task->pid_link);
  list_del_init(&task->task_link);
}

struct task_struct *ukern_task_alloc(const char *name) {
  auto *task = static_cast<struct task_struct *>(kmem_cache_alloc(task_cachep, GFP_KERNEL));
  if (!task) return nullptr;
  ukern_task_setup(task, __atomic_add_fetch(&last_kernel_pid, 1, __ATOMIC_RELAXED), name);
  ukern_task_hash(task);
  return task;
}

void __put_task_struct(struct task_struct *task) {
  KernelTaskScope scope("put_task");
  ukern_task_unhash(task);
  if (task->mm) mmput(task->mm);
  put_group_info(task->group_info);
  kfree(task->exe);
  kfree(task->user_more);
  ukern_kthread_free(task->kthread);
  kmem_cache_free(task_cachep, task);
}

struct task_struct *find_task_by_pid(int nr) {
  struct task_struct *task;
  struct hlist_node *node;
  hlist_for_each_entry(task, node, pid_bucket(nr), pid_link) {
    if (task->pid == nr) return task;
  }
  return nullptr;
}

// Sets the task's program and drops the mm of the old one.
int ukern_task_set_exe(struct task_struct *task, const char *exe) {
  if (same_text(task->exe, exe)) return 0;
  char *copy = nullptr;
  if (exe) {
    copy = kstrdup(exe, GFP_KERNEL);
    if (!copy) return -ENOMEM;
  }
  char *old_exe;
  struct mm_struct *old_mm;
  {
    SpinGuard guard(task->alloc_lock);
    old_exe = task->exe;
    old_mm = task->mm;
    task->exe = copy;
    task->mm = nullptr;
    if (exe) set_comm_from_path(task, exe);
  }
  kfree(old_exe);
  if (old_mm) mmput(old_mm);
  return 0;
}

// Without memory the program is unknown, which grants no rights.
static void find_exe(struct task_struct *task) {
  fault_pause();
  char *path = static_cast<char *>(__getname());
  const long len = path ? task->find_exe(task->pid, path, PATH_MAX - 1) : 0;
  if (len > 0) path[len] = '\0';
  if (ukern_task_set_exe(task, len > 0 ? path : nullptr)) ukern_task_set_exe(task, nullptr);
  if (path) __putname(path);
  fault_resume();
}

struct mm_struct *get_task_mm(struct task_struct *task) {
  might_sleep();
  if (task->find_exe) find_exe(task);
  struct mm_struct *mm;
  {
    SpinGuard guard(task->alloc_lock);
    mm = task->mm;
    if (mm) atomic_inc(&mm->mm_users);
  }
  if (mm || !task->exe) return mm;

  // In a kernel the mm exists from the start, so fault injection must not hit its creation here.
  fault_pause();
  struct mm_struct *made = ukern_exec_mm(task->exe);
  fault_resume();
  if (!made) return nullptr;
  struct mm_struct *lost = nullptr;
  {
    SpinGuard guard(task->alloc_lock);
    if (task->mm)
      lost = made;
    else
      task->mm = made;
    mm = task->mm;
    atomic_inc(&mm->mm_users);
  }
  if (lost) mmput(lost);
  return mm;
}

void mmput(struct mm_struct *mm) {
  might_sleep();
  if (atomic_dec_and_test(&mm->mm_users)) ukern_exec_mm_free(mm);
}

int ukern_tasks_init(void) {
  task_cachep =
      kmem_cache_create("task_struct", sizeof(struct task_struct), 0, 0, nullptr, nullptr);
  return task_cachep ? 0 : -ENOMEM;
}

void ukern_tasks_exit(void) {
  while (!list_empty(&all_tasks)) {
    struct task_struct *task = list_entry(all_tasks.next, struct task_struct, task_link);
    report_end(report_begin("task %d (%s) is still there at shutdown, with %d references",
                            task->pid, task->comm, atomic_read(&task->usage)));
    ukern_task_unhash(task);
  }
  kmem_cache_destroy(task_cachep);
}
}
