/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A lock's data for the lock checker: its class and its name. Locks of one class are taken by the
 * same rules. A class is the address of a static key, or of the lock itself if that is static; a
 * subclass of 0 to 7; and for the locks of a file system's objects the depth of that file system. A
 * file system over another of its own type takes the lower one's locks under its own locks of the
 * same kind. The checker (ukern/sync/lockcheck.h) records the order in which classes are taken, and
 * reports the first time that two are taken in both orders. Release builds have none of it.
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
/* Changes the class of a lock that is not held; its depth stays. */
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
