/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Reads the headers of a real Linux 2.6.18 in C++. The build includes this file before each source,
 * so that all kernel headers have been read, inside the bracket, when the source asks for
 * module/kernel.h; the files of the tree itself are never changed (the build spaces out one of them
 * into a copy of its own: see the Makefile).
 *
 * What stands in the way, in the order in which it is removed:
 * - the headers refuse compilers later than gcc 4: they are shown a 4;
 * - names that are keywords in C++ get a trailing underscore for the time of the reading
 * (`page->private_`);
 * - empty structures have size 0 in GNU C and 1 in C++, which would shift whatever follows them
 * without any error: each is read under another name and given an array of no elements, which is
 * size 0 in both;
 * - after the reading, the macros whose bodies use a renamed name, or initialise out of order, are
 * given again;
 * - `inline` and its spellings are macros that force inlining, and NULL is an integer: both are put
 * right.
 */
#ifndef TARN_KMOD_BRACKET_H
#define TARN_KMOD_BRACKET_H

/* What the compiler would warn about below is in the headers' text, not in ours. */
#pragma GCC system_header

#pragma push_macro("__GNUC__")
#undef __GNUC__
#define __GNUC__ 4

#define new new_
#define class class_
#define private private_
#define namespace namespace_
#define typename typename_

extern "C" {

#include <linux/autoconf.h>

/* Defined inside extern "C", so it must not say so again. */
#include <linux/linkage.h>
#undef CPP_ASMLINKAGE
#define CPP_ASMLINKAGE

#define mod_arch_specific tarn_c_mod_arch_specific
#include <asm/module.h>
#undef mod_arch_specific
struct mod_arch_specific {
  char none[0];
};

#ifndef CONFIG_SECCOMP
#define seccomp_t tarn_c_seccomp_t
#include <linux/seccomp.h>
#undef seccomp_t
typedef struct {
  char none[0];
} seccomp_t;
#endif

#ifndef CONFIG_LOCKDEP
#define lock_class_key tarn_c_lock_class_key
#include <linux/lockdep.h>
#undef lock_class_key
struct lock_class_key {
  char none[0];
};
#endif

#if !defined(CONFIG_SMP) && !defined(CONFIG_DEBUG_LOCK_ALLOC)
#include <linux/lockdep.h>
#define raw_rwlock_t tarn_c_raw_rwlock_t
#ifndef CONFIG_DEBUG_SPINLOCK
#define raw_spinlock_t tarn_c_raw_spinlock_t
#endif
#define __LINUX_SPINLOCK_TYPES_H
#include <linux/spinlock_types_up.h>
#undef __LINUX_SPINLOCK_TYPES_H
#ifndef CONFIG_DEBUG_SPINLOCK
#undef raw_spinlock_t
typedef struct {
  char none[0];
} raw_spinlock_t;
#endif
#undef raw_rwlock_t
typedef struct {
  char none[0];
} raw_rwlock_t;
#endif

#include "kernel.h"
/* For the portable test cases. */
#include <linux/delay.h>
#include <linux/xattr.h>

}  // extern "C"

#undef new
#undef class
#undef private
#undef namespace
#undef typename
#undef inline
#undef __inline__
#undef __inline
#undef NULL
#define NULL __null
#pragma pop_macro("__GNUC__")

#undef page_private
#define page_private(page) ((page)->private_)
#undef set_page_private
#define set_page_private(page, value) ((page)->private_ = (value))

#ifdef CONFIG_DEBUG_SPINLOCK
#undef __SPIN_LOCK_UNLOCKED
#define __SPIN_LOCK_UNLOCKED(name)                                                   \
  (spinlock_t) {                                                                     \
    .raw_lock = __RAW_SPIN_LOCK_UNLOCKED, .magic = SPINLOCK_MAGIC, .owner_cpu = ~0u, \
    .owner = SPINLOCK_OWNER_INIT, SPIN_DEP_MAP_INIT(name)                            \
  }
#undef __RW_LOCK_UNLOCKED
#define __RW_LOCK_UNLOCKED(name)                                                 \
  (rwlock_t) {                                                                   \
    .raw_lock = __RAW_RW_LOCK_UNLOCKED, .magic = RWLOCK_MAGIC, .owner_cpu = ~0u, \
    .owner = SPINLOCK_OWNER_INIT, RW_DEP_MAP_INIT(name)                          \
  }
#endif

#undef __WAITQUEUE_INITIALIZER
#define __WAITQUEUE_INITIALIZER(name, task)                                                    \
  {                                                                                            \
    .flags = 0, .private_ = (task), .func = default_wake_function, .task_list = { NULL, NULL } \
  }
#undef DEFINE_WAIT
#define DEFINE_WAIT(name)                                \
  wait_queue_t name = {.flags = 0,                       \
                       .private_ = current,              \
                       .func = autoremove_wake_function, \
                       .task_list = LIST_HEAD_INIT((name).task_list)}
#undef init_wait
#define init_wait(wait)                      \
  do {                                       \
    (wait)->private_ = current;              \
    (wait)->func = autoremove_wake_function; \
    INIT_LIST_HEAD(&(wait)->task_list);      \
  } while (0)
#undef is_sync_wait
#define is_sync_wait(wait) (!(wait) || (wait)->private_)

#endif
