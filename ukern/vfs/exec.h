/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The mm of a task whose program runs outside the kernel. It has only the region that kernel code
 * needs, that of the program's file.
 */
#ifndef UKERN_VFS_EXEC_H
#define UKERN_VFS_EXEC_H

struct mm_struct;

#ifdef __cplusplus
extern "C" {
#endif

/*
 * An address space with one region, marked VM_EXECUTABLE and VM_DENYWRITE, whose vm_file is the
 * program at this absolute path; mm_users and mm_count are 1. Permissions on the path are not
 * checked: the program runs already. The file is not opened, has no operations and does not deny
 * writes. NULL when there is no regular file at the path, or no memory. May sleep.
 */
struct mm_struct *ukern_exec_mm(const char *program);
/* Frees an address space without users, with its regions' files. May sleep. */
void ukern_exec_mm_free(struct mm_struct *mm);

#ifdef __cplusplus
}
#endif
#endif
