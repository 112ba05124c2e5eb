/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What the lock checker knows of a lock: its class and its name. Locks of one class are taken by
 * the same rules; the class is named by the address of a static key, or of the lock itself where
 * that is static, and a subclass of 0 to 7. The checker (ukern/sync/lockcheck.h) learns in which
 * order classes are taken and reports the first time when two of them are taken both ways round.
 * All of it is gone in release builds.
 */
#ifndef _LINUX_LOCKDEP_H
#define _LINUX_LOCKDEP_H

#include <linux/compiler.h>
#include <linux/linkage.h>

#define MAX_LOCKDEP_SUBCLASSES 8UL
#define SINGLE_DEPTH_NESTING 1

#if UKERN_DEBUG

struct lock_class_key {
  char subkeys[MAX_LOCKDEP_SUBCLASSES];
};

struct lockdep_map {
  struct lock_class_key *key; /* null: the lock itself, if it is static */
  const char *name;
};

extern "C" void lockdep_init_map(struct lockdep_map *lock, const char *name,
                                 struct lock_class_key *key);

#define lockdep_set_class(lock, key) lockdep_init_map(&(lock)->dep_map, #key, key)
#define lockdep_set_class_and_name(lock, key, name) lockdep_init_map(&(lock)->dep_map, name, key)

#define UKERN_DEP_MAP(lockname) , .dep_map = {.key = 0, .name = #lockname}
#define UKERN_LOCK_INIT(lock, init)              \
  do {                                           \
    static struct lock_class_key lock_init_key_; \
    init((lock), #lock, &lock_init_key_);        \
  } while (0)

#else

struct lock_class_key {};

#define lockdep_set_class(lock, key) \
  do {                               \
    (void)(key);                     \
  } while (0)
#define lockdep_set_class_and_name(lock, key, name) \
  do {                                              \
    (void)(key);                                    \
  } while (0)

#define UKERN_DEP_MAP(lockname)
#define UKERN_LOCK_INIT(lock, init) init((lock), 0, 0)

#endif

#endif
