/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Addresses of pages. All memory is always mapped, so kmap costs nothing; it still must not be
 * called where sleeping is forbidden.
 */
#ifndef _LINUX_HIGHMEM_H
#define _LINUX_HIGHMEM_H

#include <linux/fs.h>
#include <linux/kernel.h>
#include <linux/mm.h>
#include <linux/string.h>
#include <asm/uaccess.h>

#ifdef __cplusplus
extern "C" {
#endif

enum km_type {
  KM_BOUNCE_READ,
  KM_SKB_SUNRPC_DATA,
  KM_SKB_DATA_SOFTIRQ,
  KM_USER0,
  KM_USER1,
  KM_BIO_SRC_IRQ
};

static inline void *kmap(struct page *page) {
  might_sleep();
  return page_address(page);
}
static inline void kunmap(struct page *) {}

static inline void clear_highpage(struct page *page) {
  memset(page_address(page), 0, PAGE_SIZE);
}

static inline void memclear_highpage_flush(struct page *page, unsigned int offset,
                                           unsigned int size) {
  BUG_ON(offset + size > PAGE_SIZE);
  memset((char *)page_address(page) + offset, 0, size);
}

static inline void copy_highpage(struct page *to, struct page *from) {
  memcpy(page_address(to), page_address(from), PAGE_SIZE);
}

#ifdef __cplusplus
}
#endif
#endif
