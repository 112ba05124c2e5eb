/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The lock checker of debug builds. Every lock calls it before and after an acquisition and at the
 * release. It records each thread's held locks with their call stacks, and for the whole kernel
 * every order of two lock classes with the call stacks of its first occurrence. It reports:
 *
 *   - two classes taken in both orders, directly or through other classes
 *   - a lock taken again by its holder, or a second lock of a class without a subclass
 *     (readers of an rwlock_t may nest)
 *   - releasing a lock that is not held, or one held for writing as a reader and the reverse
 *   - taking a sleeping lock, or anything else that may sleep, under a spin lock
 *   - initialising or freeing a lock that is held; ending a task or a call with a lock held
 *
 * Locks that are initialised while a file system's object is created (UKERN_LOCK_DEPTH) have that
 * file system's depth in their class, unless the lock itself is the key.
 *
 * A trylock cannot deadlock and records no order. A lock without a class (neither static nor
 * initialised by a function) is checked for everything but order. A boot clears the recorded
 * orders. The checker owns no kernel object, takes no kernel lock and never sleeps. Release builds
 * have none of it.
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
/* Reports and clears the locks that the calling thread holds; `when` names the moment at which it
 * should hold none. */
void ukern_lock_check_none(const char *when);
/* Clears classes and orders. No lock may be held. */
void ukern_lockcheck_reset(void);
/* Sets the depth of locks that the calling thread initialises from now on. Returns the previous
 * one. */
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
