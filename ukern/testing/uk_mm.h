/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Mapped files and write-back on demand, in test images. A mapping behaves like user memory from
 * mmap(2): the first access faults a page in, the first write makes it writable, and written data
 * becomes a dirty page of the file at msync or munmap. The memory cannot be accessed directly:
 * uk_map_read and uk_map_write are the loads and stores.
 *
 * Every call acts as the current task. Several threads may use one mapping; uk_munmap is the last
 * call.
 */
#ifndef UKERN_TESTING_UK_MM_H
#define UKERN_TESTING_UK_MM_H

#ifdef __cplusplus
extern "C" {
#endif

struct uk_file;
struct uk_mapping;

/*
 * Maps `len` bytes (rounded up to pages) of an open file from `offset` on, which is a multiple of
 * 4096. `prot`: PROT_READ 1, PROT_WRITE 2, PROT_EXEC 4. `flags`: MAP_SHARED 1 or MAP_PRIVATE 2;
 * MAP_EXECUTABLE 0x1000 and MAP_DENYWRITE 0x800 as for the region of a program. The mapping has a
 * reference on the file. -EACCES: the file is not open for that access. -ENODEV: the file cannot be
 * mapped. -EINVAL. -ENOMEM. -ETXTBSY.
 */
int uk_mmap(struct uk_file *file, unsigned long long offset, unsigned long len, int prot, int flags,
            struct uk_mapping **out);
/*
 * Loads and stores at `pos` inside the mapping: 0, -EFAULT where a process would get SIGSEGV
 * (outside, or not allowed), -EIO where it would get SIGBUS (behind the end of the file, or the
 * page cannot be read), -ENOMEM. Pages before the bad one have been accessed.
 */
int uk_map_read(struct uk_mapping *map, unsigned long pos, void *buf, unsigned long len);
int uk_map_write(struct uk_mapping *map, unsigned long pos, const void *buf, unsigned long len);
/* msync(2) on a part of the mapping: MS_ASYNC 1, MS_INVALIDATE 2, MS_SYNC 4. */
int uk_msync(struct uk_mapping *map, unsigned long pos, unsigned long len, int flags);
void uk_munmap(struct uk_mapping *map);

/* sync(2): writes all dirty inodes and pages and waits. */
void uk_sync(void);
/* Wakes the write-back threads as if memory were short, and returns at once: everything that is
 * dirty now gets written. */
void uk_wake_writeback(void);
/* Drops all clean and unused cached pages. */
void uk_drop_pagecache(void);

#ifdef __cplusplus
}
#endif
#endif
