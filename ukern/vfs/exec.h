/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The memory of a task whose program runs outside: an address space with the one region that
 * matters to kernel code, that of the program's file.
 */
#ifndef UKERN_VFS_EXEC_H
#define UKERN_VFS_EXEC_H

struct mm_struct;

#ifdef __cplusplus
extern "C" {
#endif

/*
 * An address space with one region, marked VM_EXECUTABLE and VM_DENYWRITE, whose vm_file names the
 * program at this absolute path; mm_users and mm_count are 1. Permissions on the way play no part:
 * the program runs. The file is not opened, has no operations and denies nobody writing. NULL when
 * there is no regular file at the path, or no memory. May sleep.
 */
struct mm_struct *ukern_exec_mm(const char *program);
/* The end of an address space without users: its regions' files, then itself. May sleep. */
void ukern_exec_mm_free(struct mm_struct *mm);

#ifdef __cplusplus
}
#endif
#endif
