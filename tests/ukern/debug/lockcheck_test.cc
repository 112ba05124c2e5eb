// SPDX-License-Identifier: GPL-2.0
// Every rule that the lock checker watches, broken once.
#include <linux/mutex.h>
#include <linux/rwsem.h>
#include <linux/sched.h>
#include <linux/slab.h>
#include <linux/spinlock.h>

#include "tests/harness/case.h"
#include "tests/ukern/threads.h"
#include "ukern/door/uk_core.h"

#if UKERN_DEBUG

namespace {

DEFINE_MUTEX(first_mutex);
DEFINE_MUTEX(second_mutex);
DEFINE_MUTEX(third_mutex);
DEFINE_SPINLOCK(some_spinlock);
DEFINE_RWLOCK(some_rwlock);
DECLARE_RWSEM(some_rwsem);

void take(struct mutex *outer, struct mutex *inner) {
  mutex_lock(outer);
  mutex_lock(inner);
  mutex_unlock(inner);
  mutex_unlock(outer);
}

void both_ways_round() {
  take(&first_mutex, &second_mutex);
  take(&second_mutex, &first_mutex);
}

void round_over_three() {
  take(&first_mutex, &second_mutex);
  take(&second_mutex, &third_mutex);
  take(&third_mutex, &first_mutex);
}

void spin_and_rwlock_both_ways_round() {
  spin_lock(&some_spinlock);
  read_lock(&some_rwlock);
  read_unlock(&some_rwlock);
  spin_unlock(&some_spinlock);
  write_lock(&some_rwlock);
  spin_lock(&some_spinlock);
}

void mutex_twice() {
  mutex_lock(&first_mutex);
  mutex_lock(&first_mutex);
}

void spin_twice() {
  spin_lock(&some_spinlock);
  spin_lock(&some_spinlock);
}

void rwsem_readers_nest() {
  down_read(&some_rwsem);
  down_read(&some_rwsem);
}

void reader_becomes_writer() {
  read_lock(&some_rwlock);
  write_lock(&some_rwlock);
}

void two_of_one_class() {
  static struct mutex mutexes[2];
  for (auto &mutex : mutexes) mutex_init(&mutex);
  mutex_lock(&mutexes[0]);
  mutex_lock(&mutexes[1]);
}

void unlock_free_mutex() {
  mutex_unlock(&first_mutex);
}

void unlock_free_spin() {
  spin_unlock(&some_spinlock);
}

void write_hold_given_back_as_read() {
  down_write(&some_rwsem);
  up_read(&some_rwsem);
}

void mutex_under_spin() {
  spin_lock(&some_spinlock);
  mutex_lock(&first_mutex);
}

void sleep_under_spin() {
  spin_lock(&some_spinlock);
  msleep(1);
}

void allocate_under_spin() {
  spin_lock(&some_spinlock);
  kfree(kmalloc(10, GFP_KERNEL));
}

void init_held_lock() {
  static struct mutex mutex;
  mutex_init(&mutex);
  mutex_lock(&mutex);
  mutex_init(&mutex);
}

void free_held_lock() {
  auto *lock = (spinlock_t *)kmalloc(sizeof(spinlock_t), GFP_KERNEL);
  spin_lock_init(lock);
  spin_lock(lock);
  kfree(lock);
}

void leave_with_lock() {
  mutex_lock(&first_mutex);
  uk_task_leave();
}

#ifndef UKERN_NO_FENCES
void end_thread_with_lock() {
  struct ThreadTeam team;
  if (thread_team_start(
          &team, 1, [](void *) { mutex_lock(&first_mutex); }, NULL))
    thread_team_wait(&team, 1);
  for (;;) msleep(1000);  // the report ends this process, however late the thread gets to it
}
#endif

void destroy_held_mutex() {
  mutex_lock(&first_mutex);
  mutex_destroy(&first_mutex);
}

void assert_free_spin() {
  assert_spin_locked(&some_spinlock);
}

}  // namespace

CASE(lockcheck, inversion_is_reported_with_both_names) {
  EXPECT_REPORT(both_ways_round,
                "lock order inversion: first_mutex is being taken under second_mutex");
}

CASE(lockcheck, inversion_report_tells_where) {
  EXPECT_REPORT(both_ways_round, "lockcheck_test.cc");
  EXPECT_REPORT(both_ways_round, "elsewhere first_mutex was taken at");
}

CASE(lockcheck, inversion_over_a_third_lock_is_reported) {
  EXPECT_REPORT(round_over_three,
                "lock order inversion: first_mutex is being taken under third_mutex");
}

CASE(lockcheck, inversion_of_spin_lock_and_rwlock) {
  EXPECT_REPORT(spin_and_rwlock_both_ways_round, "lock order inversion: some_spinlock");
}

CASE(lockcheck, second_taking_by_the_holder) {
  EXPECT_REPORT(mutex_twice, "lock taken again by its holder: first_mutex");
  EXPECT_REPORT(spin_twice, "lock taken again by its holder: some_spinlock");
  EXPECT_REPORT(rwsem_readers_nest, "lock taken again by its holder: some_rwsem");
  EXPECT_REPORT(reader_becomes_writer, "lock taken again by its holder: some_rwlock");
}

CASE(lockcheck, two_locks_of_one_class) {
  EXPECT_REPORT(two_of_one_class, "second lock of one class");
}

CASE(lockcheck, giving_back_what_is_not_held) {
  EXPECT_REPORT(unlock_free_mutex, "lock given back that is not held: first_mutex");
  EXPECT_REPORT(unlock_free_spin, "lock given back that is not held: some_spinlock");
  EXPECT_REPORT(write_hold_given_back_as_read, "lock given back in another way than taken");
}

CASE(lockcheck, sleeping_under_a_spin_lock) {
  EXPECT_REPORT(mutex_under_spin, "sleeping function called in atomic context");
  EXPECT_REPORT(sleep_under_spin, "held: some_spinlock");
  EXPECT_REPORT(allocate_under_spin, "sleeping function called in atomic context");
}

CASE(lockcheck, held_locks_stay_what_they_are) {
  EXPECT_REPORT(init_held_lock, "initialised while it is held");
  EXPECT_REPORT(free_held_lock, "memory freed with a held lock in it");
  EXPECT_REPORT(destroy_held_mutex, "BUG at");
}

CASE(lockcheck, locks_do_not_outlive_the_call) {
  EXPECT_REPORT(leave_with_lock,
                "return from the kernel with 1 locks held, the last one first_mutex");
#ifndef UKERN_NO_FENCES
  // The thread sanitizer lets no thread start in a forked child.
  EXPECT_REPORT(end_thread_with_lock, "end of a kernel thread with 1 locks held");
#endif
}

CASE(lockcheck, assertion_of_a_lock_that_is_free) {
  EXPECT_REPORT(assert_free_spin, "BUG at");
}

CASE(lockcheck, attempts_teach_no_order) {
  mutex_lock(&first_mutex);
  if (mutex_trylock(&second_mutex)) mutex_unlock(&second_mutex);
  mutex_unlock(&first_mutex);
  take(&second_mutex, &first_mutex);
}

#endif
