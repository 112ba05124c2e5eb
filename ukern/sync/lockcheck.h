/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The lock checker of debug builds. Every lock calls it before and after it is taken and when it is
 * given back. It keeps, per thread, what is held and where it was taken, and for the whole kernel
 * which lock classes were ever taken under which, with the places. What it reports:
 *
 *   - two classes taken both ways round, directly or through others between them
 *   - a lock taken again by its holder, or a second lock of the same class without a subclass of
 * its own (readers of an rwlock_t may nest)
 *   - giving back what is not held, or a writer's hold as a reader's and the other way round
 *   - sleeping locks taken, and anything else that may sleep, under a spin lock
 *   - initialising or freeing a lock that is held; ending a task or a call with a lock held
 *
 * Locks that are initialised while a file system's object is being made (UKERN_LOCK_DEPTH) get the
 * depth of that file system as part of their class, unless their key is theirs alone.
 *
 * Attempts (trylock) cannot deadlock and teach no order. A lock of no class (neither static nor
 * initialised by a function) is checked for everything but order. The learned order is forgotten at
 * boot. Owns no kernel object, takes no kernel lock, never sleeps. In release builds all of this is
 * nothing.
 */
#ifndef UKERN_SYNC_LOCKCHECK_H
#define UKERN_SYNC_LOCKCHECK_H

#include <linux/lockdep.h>

enum ukern_lock_kind {
  UKERN_SPIN,
  UKERN_RW_READ,
  UKERN_RW_WRITE,
  UKERN_MUTEX,
  UKERN_SEM_READ,
  UKERN_SEM_WRITE,
};

#if UKERN_DEBUG

extern "C" {
void ukern_lock_before(struct lockdep_map *map, enum ukern_lock_kind kind, unsigned int subclass);
void ukern_lock_got(struct lockdep_map *map, enum ukern_lock_kind kind, unsigned int subclass);
void ukern_lock_release(struct lockdep_map *map, enum ukern_lock_kind kind);
void ukern_lock_downgrade(struct lockdep_map *map);
int ukern_lock_held(const struct lockdep_map *map);

/* Reports each lock that the calling thread holds in this memory, which is about to be freed. */
void ukern_lock_check_free(const void *memory, unsigned long size);
/* Reports what the calling thread holds, and forgets it: `when` says at which moment it should hold
 * nothing. */
void ukern_lock_check_none(const char *when);
/* Forgets classes and order. No lock may be held. */
void ukern_lockcheck_reset(void);
/* The depth for locks that the calling thread initialises from now on; the one before is the
 * result. */
unsigned int ukern_lock_set_depth(unsigned int depth);
}

/* Locks initialised until the end of the scope belong to a file system of that depth. */
class ukern_lock_depth {
 public:
  explicit ukern_lock_depth(unsigned int depth) : outer_(ukern_lock_set_depth(depth)) {}
  ~ukern_lock_depth() { ukern_lock_set_depth(outer_); }
  ukern_lock_depth(const ukern_lock_depth &) = delete;
  ukern_lock_depth &operator=(const ukern_lock_depth &) = delete;

 private:
  unsigned int outer_;
};
#define UKERN_LOCK_DEPTH(depth) ukern_lock_depth lock_depth_(depth)

#define UKERN_LOCK_BEFORE(map, kind, subclass) ukern_lock_before(map, kind, subclass)
#define UKERN_LOCK_GOT(map, kind, subclass) ukern_lock_got(map, kind, subclass)
#define UKERN_LOCK_RELEASE(map, kind) ukern_lock_release(map, kind)
#define UKERN_LOCK_DOWNGRADE(map) ukern_lock_downgrade(map)

#else

#define UKERN_LOCK_BEFORE(map, kind, subclass) (void)0
#define UKERN_LOCK_GOT(map, kind, subclass) (void)0
#define UKERN_LOCK_RELEASE(map, kind) (void)0
#define UKERN_LOCK_DOWNGRADE(map) (void)0
#define UKERN_LOCK_DEPTH(depth) (void)0

static inline void ukern_lock_check_free(const void *, unsigned long) {}
static inline void ukern_lock_check_none(const char *) {}
static inline void ukern_lockcheck_reset(void) {}

#endif
#endif
