/* SPDX-License-Identifier: GPL-2.0 */
/* Only struct page; the meaning and the locks of its fields are in linux/mm.h. */
#ifndef _LINUX_MM_TYPES_H
#define _LINUX_MM_TYPES_H

#include <linux/list.h>
#include <linux/types.h>
#include <asm/atomic.h>

struct address_space;

struct page {
  unsigned long flags;
  atomic_t _count;
  atomic_t _mapcount; /* number of mappings minus one: -1 when not mapped */
  unsigned long private_;
  struct address_space *mapping;
  pgoff_t index;
  struct list_head lru;
  void *virtual_; /* the memory, see page_address */
  unsigned order; /* 2^order contiguous pages; only the first has a struct page */
};

#endif
