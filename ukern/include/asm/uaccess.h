/* SPDX-License-Identifier: GPL-2.0 */
/*
 * User memory. Under USER_DS, the limit of a program's task, only declared user memory of the
 * current task is accessible (uk_user_add); under KERNEL_DS everything is. The copies return the
 * number of bytes that they could not copy; copy_from_user zeroes the part that it could not fill.
 * All of them may sleep.
 */
#ifndef _ASM_UACCESS_H
#define _ASM_UACCESS_H

#include <linux/compiler.h>
#include <linux/errno.h>
#include <linux/sched.h>
#include <asm/page.h>

#define VERIFY_READ 0
#define VERIFY_WRITE 1

#define MAKE_MM_SEG(s) ((mm_segment_t){(s)})
#define KERNEL_DS MAKE_MM_SEG(0xFFFFFFFFFFFFFFFFUL)
#define USER_DS MAKE_MM_SEG(0x800000000000UL - PAGE_SIZE)

#define get_ds() (KERNEL_DS)
#define get_fs() (current->addr_limit)
#define set_fs(x) (current->addr_limit = (x))
#define segment_eq(a, b) ((a).seg == (b).seg)

extern "C" {
int ukern_access_ok(unsigned long addr, unsigned long size);

unsigned long copy_to_user(void __user *to, const void *from, unsigned len) __must_check;
unsigned long copy_from_user(void *to, const void __user *from, unsigned len);
/* Length without the NUL, `count` if there was none, or -EFAULT. */
long strncpy_from_user(char *dst, const char __user *src, long count);
/* Length with the NUL; more than `n` if there is none, 0 on a fault. */
long strnlen_user(const char __user *str, long n);
unsigned long clear_user(void __user *mem, unsigned long len);
}

#define access_ok(type, addr, size) \
  ((void)(type), likely(ukern_access_ok((unsigned long)(addr), (unsigned long)(size)) != 0))

/* For callers that have checked access_ok. The ranges are checked all the same. */
#define __copy_to_user(to, from, len) copy_to_user(to, from, len)
#define __copy_from_user(to, from, len) copy_from_user(to, from, len)
#define __copy_to_user_inatomic(to, from, len) copy_to_user(to, from, len)
#define __copy_from_user_inatomic(to, from, len) copy_from_user(to, from, len)

/* A type without const and volatile. */
template <typename T>
struct ukern_plain {
  typedef T type;
};
template <typename T>
struct ukern_plain<const T> {
  typedef T type;
};
template <typename T>
struct ukern_plain<volatile T> {
  typedef T type;
};
template <typename T>
struct ukern_plain<const volatile T> {
  typedef T type;
};

/* 0, or -EFAULT with `x` set to 0. */
#define get_user(x, ptr)                                                                 \
  ({                                                                                     \
    ukern_plain<__typeof__(*(ptr))>::type get_user_value_;                               \
    int get_user_failed_ = copy_from_user(&get_user_value_, (ptr), sizeof(*(ptr))) != 0; \
    (x) = (__typeof__(x))get_user_value_;                                                \
    get_user_failed_ ? -EFAULT : 0;                                                      \
  })
#define __get_user(x, ptr) get_user(x, ptr)
#define put_user(x, ptr)                                                          \
  ({                                                                              \
    ukern_plain<__typeof__(*(ptr))>::type put_user_value_ =                       \
        (ukern_plain<__typeof__(*(ptr))>::type)(x);                               \
    copy_to_user((ptr), &put_user_value_, sizeof(put_user_value_)) ? -EFAULT : 0; \
  })
#define __put_user(x, ptr) put_user(x, ptr)

#endif
