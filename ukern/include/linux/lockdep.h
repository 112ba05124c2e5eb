/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What the lock checker knows of a lock: its class and its name. Locks of one class are taken by
 * the same rules; the class is named by the address of a static key, or of the lock itself where
 * that is static, a subclass of 0 to 7, and for the locks of a file system's objects by how many
 * other file systems it lies on: one that is mounted over a mount of its own type takes the locks
 * of the lower one under those of the same kind of its own. The checker (ukern/sync/lockcheck.h)
 * learns in which order classes are taken and reports the first time when two of them are taken
 * both ways round. All of it is gone in release builds.
 */
#ifndef _LINUX_LOCKDEP_H
#define _LINUX_LOCKDEP_H

#include <linux/compiler.h>
#include <linux/linkage.h>

#define MAX_LOCKDEP_SUBCLASSES 8UL
#define SINGLE_DEPTH_NESTING 1

#if UKERN_DEBUG

/* Beyond that depth file systems share their classes. */
#define UKERN_LOCK_DEPTHS 4

struct lock_class_key {
  char subkeys[MAX_LOCKDEP_SUBCLASSES * UKERN_LOCK_DEPTHS];
};

struct lockdep_map {
  struct lock_class_key *key; /* null: the lock itself, if it is static */
  const char *name;
  unsigned int depth; /* of the file system, below UKERN_LOCK_DEPTHS; 0 for locks of none */
};

extern "C" {
void lockdep_init_map(struct lockdep_map *lock, const char *name, struct lock_class_key *key);
/* Another class for a lock that nobody holds; it stays at its depth. */
void ukern_lock_set_class(struct lockdep_map *lock, const char *name, struct lock_class_key *key);
}

#define lockdep_set_class(lock, key) ukern_lock_set_class(&(lock)->dep_map, #key, key)
#define lockdep_set_class_and_name(lock, key, name) \
  ukern_lock_set_class(&(lock)->dep_map, name, key)

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
