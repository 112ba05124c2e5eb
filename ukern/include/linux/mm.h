/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Pages and mappings.
 *
 * A page is 4096 bytes of memory with a struct page. `_count` counts its references: one of the
 * page cache, one of private_ data, one of each mapping that shows it, and one of every lookup
 * until page_cache_release. At zero it is freed.
 *
 * page->mapping and page->index change only with the page locked and the mapping's tree_lock held
 * for writing.
 */
#ifndef _LINUX_MM_H
#define _LINUX_MM_H

#include <linux/types.h>
#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/gfp.h>
#include <linux/list.h>
#include <linux/mm_types.h>
#include <linux/page-flags.h>
#include <linux/rwsem.h>
#include <linux/spinlock.h>
#include <linux/fs.h>
#include <asm/atomic.h>
#include <asm/page.h>

#ifdef __cplusplus
extern "C" {
#endif

struct address_space;
struct file_ra_state;
struct mm_struct;
struct vm_area_struct;
struct writeback_control;

#define page_private(page) ((page)->private_)
#define set_page_private(page, v) ((page)->private_ = (v))

/* Allocation and freeing: linux/gfp.h. */

static inline void *page_address(struct page *page) {
  return page->virtual_;
}
/* The page at an address from __get_free_pages or get_zeroed_page, which may be any address in the
 * first page. */
struct page *virt_to_page(const void *addr);

static inline int page_count(struct page *page) {
  return atomic_read(&page->_count);
}
static inline void get_page(struct page *page) {
  atomic_inc(&page->_count);
}
static inline int get_page_unless_zero(struct page *page) {
  return atomic_inc_not_zero(&page->_count);
}
static inline int put_page_testzero(struct page *page) {
  BUG_ON(atomic_read(&page->_count) == 0);
  return atomic_dec_and_test(&page->_count);
}
void put_page(struct page *page);

static inline int page_mapped(struct page *page) {
  return atomic_read(&page->_mapcount) >= 0;
}
static inline struct address_space *page_mapping(struct page *page) {
  return page->mapping;
}

#define VM_READ 0x00000001 /* current permissions */
#define VM_WRITE 0x00000002
#define VM_EXEC 0x00000004
#define VM_SHARED 0x00000008
#define VM_MAYREAD 0x00000010 /* permissions that mprotect may give */
#define VM_MAYWRITE 0x00000020
#define VM_MAYEXEC 0x00000040
#define VM_MAYSHARE 0x00000080
#define VM_DENYWRITE 0x00000800
#define VM_EXECUTABLE 0x00001000 /* the region of the running program */

/* One region of a task's memory. Regions of a task form a list in address order under mmap_sem. */
struct vm_area_struct {
  struct mm_struct *vm_mm;
  unsigned long vm_start;
  unsigned long vm_end; /* the first byte behind it */
  struct vm_area_struct *vm_next;
  unsigned long vm_flags;
  union {
    struct {
      struct list_head list; /* in the mapping's i_mmap, under i_mmap_lock */
    } vm_set;
  } shared;
  struct vm_operations_struct *vm_ops;
  unsigned long vm_pgoff; /* where it begins in vm_file, in pages */
  struct file *vm_file;   /* holds a reference; NULL: no file */
  void *vm_private_data;
};

struct vm_operations_struct {
  void (*open)(struct vm_area_struct *area);
  void (*close)(struct vm_area_struct *area);
  /* The page at an address, with a reference; NOPAGE_SIGBUS, NOPAGE_OOM. `type` gets VM_FAULT_*. */
  struct page *(*nopage)(struct vm_area_struct *area, unsigned long address, int *type);
  /* A page is about to become writable; an error makes it SIGBUS. */
  int (*page_mkwrite)(struct vm_area_struct *vma, struct page *page);
};

struct mm_struct {
  struct vm_area_struct *mmap; /* regions, under mmap_sem */
  struct rw_semaphore mmap_sem;
  atomic_t mm_users; /* tasks, and get_task_mm callers */
  atomic_t mm_count; /* references to the structure; all users together are one */
  int map_count;
};

#define NOPAGE_SIGBUS (NULL)
#define NOPAGE_OOM ((struct page *)(-1))

#define VM_FAULT_OOM 0x00
#define VM_FAULT_SIGBUS 0x01
#define VM_FAULT_MINOR 0x02
#define VM_FAULT_MAJOR 0x03

/* The page of a file mapping at an address, read in if necessary; see vm_operations_struct.nopage.
 * May sleep. */
struct page *filemap_nopage(struct vm_area_struct *area, unsigned long address, int *type);

/*
 * Removes the pages wholly in [holebegin, holebegin + holelen) from every mapping of the file; a
 * length of 0 means up to the end. May sleep.
 */
void unmap_mapping_range(struct address_space *mapping, loff_t const holebegin,
                         loff_t const holelen, int even_cows);

/*
 * Sets the size of a file and drops the data behind it: from the page cache first, then by
 * i_op->truncate. The caller holds i_mutex. -EFBIG past the limits (with SIGXFSZ for the task's own
 * limit), -ETXTBSY. May sleep.
 */
int vmtruncate(struct inode *inode, loff_t offset);
/* Drop cached pages from `lstart` on, also dirty ones, and clear the rest of a partial page. May
 * sleep. */
void truncate_inode_pages(struct address_space *mapping, loff_t lstart);
void truncate_inode_pages_range(struct address_space *mapping, loff_t lstart, loff_t lend);

/*
 * Marks a page dirty, with its tag and its inode (by a_ops->set_page_dirty, else
 * __set_page_dirty_nobuffers). Non-zero if it was clean. The page is locked or otherwise protected
 * from leaving its mapping. Does not sleep by itself.
 */
int set_page_dirty(struct page *page);
int __set_page_dirty_nobuffers(struct page *page);
/* For a writepage that does not write now: marks the page dirty again and counts it as skipped. */
int redirty_page_for_writepage(struct writeback_control *wbc, struct page *page);
/* Clears the dirty mark of a locked page just before writepage; its tag stays. Non-zero if it was
 * set. */
int clear_page_dirty_for_io(struct page *page);
int test_clear_page_dirty(struct page *page);
static inline int clear_page_dirty(struct page *page) {
  return test_clear_page_dirty(page);
}
/* Writes a locked page and unlocks it; with `wait`, waits for it. 0 or -errno. May sleep. */
int write_one_page(struct page *page, int wait);

#define VM_MAX_READAHEAD 128 /* kbytes */
#define VM_MIN_READAHEAD 16

/* Drops every clean, unused page of every file. May sleep. */
void drop_pagecache(void);

#ifdef __cplusplus
}
#endif
#endif
