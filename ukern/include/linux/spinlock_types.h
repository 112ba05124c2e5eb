/* SPDX-License-Identifier: GPL-2.0 */
#ifndef _LINUX_SPINLOCK_TYPES_H
#define _LINUX_SPINLOCK_TYPES_H

#include <linux/lockdep.h>

typedef struct spinlock {
  volatile unsigned int slock; /* 0 free, 1 held, 2 held with waiters */
#if UKERN_DEBUG
  struct lockdep_map dep_map;
#endif
} spinlock_t;

typedef struct rwlock {
  volatile unsigned int lock; /* readers, UKERN_RW_WRITER, UKERN_RW_WAITERS */
#if UKERN_DEBUG
  struct lockdep_map dep_map;
#endif
} rwlock_t;

#define __SPIN_LOCK_UNLOCKED(lockname) \
  (spinlock_t) {                       \
    .slock = 0 UKERN_DEP_MAP(lockname) \
  }
#define __RW_LOCK_UNLOCKED(lockname)  \
  (rwlock_t) {                        \
    .lock = 0 UKERN_DEP_MAP(lockname) \
  }
#define SPIN_LOCK_UNLOCKED __SPIN_LOCK_UNLOCKED(old_style_spin_init)
#define RW_LOCK_UNLOCKED __RW_LOCK_UNLOCKED(old_style_rw_init)

#define DEFINE_SPINLOCK(x) spinlock_t x = __SPIN_LOCK_UNLOCKED(x)
#define DEFINE_RWLOCK(x) rwlock_t x = __RW_LOCK_UNLOCKED(x)

#endif
