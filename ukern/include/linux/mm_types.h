/* SPDX-License-Identifier: GPL-2.0 */
/* struct page alone; what its fields mean and who may change them: linux/mm.h. */
#ifndef _LINUX_MM_TYPES_H
#define _LINUX_MM_TYPES_H

#include <linux/list.h>
#include <linux/types.h>
#include <asm/atomic.h>

struct address_space;

struct page {
  unsigned long flags;
  atomic_t _count;
  atomic_t _mapcount; /* mappings that show it, less one: -1 when none does */
  unsigned long private_;
  struct address_space *mapping;
  pgoff_t index;
  struct list_head lru;
  void *virtual_; /* the memory, see page_address */
  unsigned order; /* 2^order pages follow each other there; only the first has a struct page */
};

#endif
