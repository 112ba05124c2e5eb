/* SPDX-License-Identifier: GPL-2.0 */
#ifndef _ASM_PAGE_H
#define _ASM_PAGE_H

#define PAGE_SHIFT 12
#define PAGE_SIZE (1UL << PAGE_SHIFT)
#define PAGE_MASK (~(PAGE_SIZE - 1))
#define PAGE_ALIGN(addr) (((addr) + PAGE_SIZE - 1) & PAGE_MASK)

#define THREAD_SIZE (PAGE_SIZE << 1)

#define clear_page(page) __builtin_memset((page), 0, PAGE_SIZE)
#define copy_page(to, from) __builtin_memcpy((to), (from), PAGE_SIZE)

#endif
