/* SPDX-License-Identifier: GPL-2.0 */
/* Allocation flags, and page allocation by powers of two. */
#ifndef _LINUX_GFP_H
#define _LINUX_GFP_H

#include <linux/stddef.h>
#include <linux/linkage.h>
#include <linux/types.h>

struct page;

#define __GFP_DMA ((gfp_t)0x01u)
#define __GFP_HIGHMEM ((gfp_t)0x02u)
#define __GFP_DMA32 ((gfp_t)0x04)
#define __GFP_WAIT ((gfp_t)0x10u) /* may sleep */
#define __GFP_HIGH ((gfp_t)0x20u)
#define __GFP_IO ((gfp_t)0x40u)
#define __GFP_FS ((gfp_t)0x80u) /* may call into a file system */
#define __GFP_COLD ((gfp_t)0x100u)
#define __GFP_NOWARN ((gfp_t)0x200u)
#define __GFP_REPEAT ((gfp_t)0x400u)
#define __GFP_NOFAIL ((gfp_t)0x800u) /* the caller cannot handle a failure */
#define __GFP_NORETRY ((gfp_t)0x1000u)
#define __GFP_NO_GROW ((gfp_t)0x2000u)
#define __GFP_COMP ((gfp_t)0x4000u)
#define __GFP_ZERO ((gfp_t)0x8000u)
#define __GFP_NOMEMALLOC ((gfp_t)0x10000u)
#define __GFP_HARDWALL ((gfp_t)0x20000u)

#define __GFP_BITS_SHIFT 20
#define __GFP_BITS_MASK ((gfp_t)((1 << __GFP_BITS_SHIFT) - 1))

#define GFP_ATOMIC (__GFP_HIGH)
#define GFP_NOWAIT (GFP_ATOMIC & ~__GFP_HIGH)
#define GFP_NOIO (__GFP_WAIT)
#define GFP_NOFS (__GFP_WAIT | __GFP_IO)
#define GFP_KERNEL (__GFP_WAIT | __GFP_IO | __GFP_FS)
#define GFP_USER (__GFP_WAIT | __GFP_IO | __GFP_FS | __GFP_HARDWALL)
#define GFP_HIGHUSER (__GFP_WAIT | __GFP_IO | __GFP_FS | __GFP_HARDWALL | __GFP_HIGHMEM)

#define MAX_ORDER 11

extern "C" {
/* 2^order contiguous pages, or null; sleeps if __GFP_WAIT is set. */
struct page *alloc_pages(gfp_t gfp_mask, unsigned int order);
unsigned long __get_free_pages(gfp_t gfp_mask, unsigned int order);
unsigned long get_zeroed_page(gfp_t gfp_mask);
void __free_pages(struct page *page, unsigned int order);
void free_pages(unsigned long addr, unsigned int order);
}

#define alloc_page(gfp_mask) alloc_pages(gfp_mask, 0)
#define __get_free_page(gfp_mask) __get_free_pages((gfp_mask), 0)
#define __free_page(page) __free_pages((page), 0)
#define free_page(addr) free_pages((addr), 0)

#endif
