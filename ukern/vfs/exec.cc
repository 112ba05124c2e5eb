// SPDX-License-Identifier: GPL-2.0
// The mm of a task's program for kernel code.
#include <linux/capability.h>
#include <linux/errno.h>
#include <linux/file.h>
#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/mm.h>
#include <linux/namei.h>
#include <linux/rwsem.h>
#include <linux/sched.h>
#include <linux/slab.h>
#include <linux/stat.h>
#include "ukern/vfs/exec.h"

namespace {

// Any address will do: nothing is mapped there.
constexpr unsigned long kProgramStart = 0x400000;

// The task may no longer have permission to reach its running program, so the walk runs as root.
int walk_as_root(const char *program, struct nameidata *nd) {
  struct task_struct *task = current;
  const uid_t uid = task->fsuid;
  const gid_t gid = task->fsgid;
  const kernel_cap_t cap = task->cap_effective;
  task->fsuid = 0;
  task->fsgid = 0;
  cap_set_full(task->cap_effective);
  const int error = path_lookup(program, LOOKUP_FOLLOW, nd);
  task->fsuid = uid;
  task->fsgid = gid;
  task->cap_effective = cap;
  return error;
}

struct file *program_file(const char *program) {
  struct nameidata nd;
  if (walk_as_root(program, &nd)) return nullptr;
  struct file *file = nullptr;
  if (S_ISREG(nd.dentry->d_inode->i_mode)) file = get_empty_filp();
  if (!file) {
    path_release(&nd);
    return nullptr;
  }
  file->f_dentry = nd.dentry;
  file->f_vfsmnt = nd.mnt;
  file->f_mapping = nd.dentry->d_inode->i_mapping;
  return file;
}

struct mm_struct *mm_with(struct file *file) {
  struct mm_struct *mm = static_cast<struct mm_struct *>(kzalloc(sizeof(*mm), GFP_KERNEL));
  struct vm_area_struct *vma =
      static_cast<struct vm_area_struct *>(kzalloc(sizeof(*vma), GFP_KERNEL));
  if (!mm || !vma) {
    kfree(mm);
    kfree(vma);
    return nullptr;
  }
  vma->vm_mm = mm;
  vma->vm_start = kProgramStart;
  vma->vm_end = kProgramStart + PAGE_SIZE;
  vma->vm_flags = VM_READ | VM_EXEC | VM_MAYREAD | VM_MAYEXEC | VM_DENYWRITE | VM_EXECUTABLE;
  vma->vm_file = file;
  INIT_LIST_HEAD(&vma->shared.vm_set.list);
  mm->mmap = vma;
  mm->map_count = 1;
  init_rwsem(&mm->mmap_sem);
  atomic_set(&mm->mm_users, 1);
  atomic_set(&mm->mm_count, 1);
  return mm;
}

}  // namespace

extern "C" {

struct mm_struct *ukern_exec_mm(const char *program) {
  struct file *file = program_file(program);
  if (!file) return nullptr;
  struct mm_struct *mm = mm_with(file);
  if (!mm) fput(file);
  return mm;
}

void ukern_exec_mm_free(struct mm_struct *mm) {
  while (mm->mmap) {
    struct vm_area_struct *vma = mm->mmap;
    mm->mmap = vma->vm_next;
    if (vma->vm_file) fput(vma->vm_file);
    kfree(vma);
  }
  kfree(mm);
}

}  // extern "C"
