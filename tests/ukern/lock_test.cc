// SPDX-License-Identifier: GPL-2.0
#include <linux/mutex.h>
#include <linux/rwsem.h>
#include <linux/sched.h>
#include <linux/spinlock.h>

#include "tests/harness/case.h"
#include "tests/ukern/threads.h"

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 3000;

struct Shared {
  spinlock_t spin;
  rwlock_t rw;
  struct mutex mutex;
  struct rw_semaphore rwsem;
  struct semaphore sem;
  long counter;
  long copy;
  atomic_t torn; /* readers that saw the two differ */
};

void init(struct Shared *s) {
  spin_lock_init(&s->spin);
  rwlock_init(&s->rw);
  mutex_init(&s->mutex);
  init_rwsem(&s->rwsem);
  init_MUTEX(&s->sem);
  s->counter = s->copy = 0;
  atomic_set(&s->torn, 0);
}

void step(struct Shared *s) {
  s->counter++;
  s->copy++;
}

void look(struct Shared *s) {
  if (s->counter != s->copy) atomic_inc(&s->torn);
}

void count_under_all(void *arg) {
  auto *s = (struct Shared *)arg;
  for (int i = 0; i < kRounds; i++) {
    mutex_lock(&s->mutex);
    step(s);
    mutex_unlock(&s->mutex);
  }
}

void count_under_spin(void *arg) {
  auto *s = (struct Shared *)arg;
  for (int i = 0; i < kRounds; i++) {
    unsigned long flags;
    spin_lock_irqsave(&s->spin, flags);
    step(s);
    spin_unlock_irqrestore(&s->spin, flags);
  }
}

void count_under_sem(void *arg) {
  auto *s = (struct Shared *)arg;
  for (int i = 0; i < kRounds; i++) {
    down(&s->sem);
    step(s);
    up(&s->sem);
  }
}

void read_and_write_rwlock(void *arg) {
  auto *s = (struct Shared *)arg;
  for (int i = 0; i < kRounds; i++) {
    write_lock(&s->rw);
    step(s);
    write_unlock(&s->rw);
    read_lock(&s->rw);
    look(s);
    read_unlock(&s->rw);
  }
}

void read_and_write_rwsem(void *arg) {
  auto *s = (struct Shared *)arg;
  for (int i = 0; i < kRounds; i++) {
    down_write(&s->rwsem);
    step(s);
    downgrade_write(&s->rwsem);
    look(s);
    up_read(&s->rwsem);
    down_read(&s->rwsem);
    look(s);
    up_read(&s->rwsem);
  }
}

void check_counting(void (*fn)(void *)) {
  static struct Shared shared;
  init(&shared);
  struct ThreadTeam team;
  REQUIRE_TRUE(thread_team_start(&team, kThreads, fn, &shared));
  thread_team_wait(&team, kThreads);
  EXPECT_EQ(shared.counter, (long)kThreads * kRounds);
  EXPECT_EQ(atomic_read(&shared.torn), 0);
}

// What a second thread finds when it tries each lock while the first one holds some.
struct Attempts {
  struct Shared shared;
  int spin, read, write, mutex, down_read, down_write, sem;
};

void try_all(void *arg) {
  auto *a = (struct Attempts *)arg;
  if ((a->spin = spin_trylock(&a->shared.spin))) spin_unlock(&a->shared.spin);
  if ((a->read = read_trylock(&a->shared.rw))) read_unlock(&a->shared.rw);
  if ((a->write = write_trylock(&a->shared.rw))) write_unlock(&a->shared.rw);
  if ((a->mutex = mutex_trylock(&a->shared.mutex))) mutex_unlock(&a->shared.mutex);
  if ((a->down_read = down_read_trylock(&a->shared.rwsem))) up_read(&a->shared.rwsem);
  if ((a->down_write = down_write_trylock(&a->shared.rwsem))) up_write(&a->shared.rwsem);
  if (!(a->sem = down_trylock(&a->shared.sem))) up(&a->shared.sem);
}

void try_in_another_thread(struct Attempts *attempts) {
  struct ThreadTeam team;
  REQUIRE_TRUE(thread_team_start(&team, 1, try_all, attempts));
  thread_team_wait(&team, 1);
}

}  // namespace

CASE(lock, mutex_excludes) {
  check_counting(count_under_all);
}

CASE(lock, spin_lock_excludes) {
  check_counting(count_under_spin);
}

CASE(lock, semaphore_of_one_excludes) {
  check_counting(count_under_sem);
}

CASE(lock, rwlock_keeps_readers_from_writers) {
  check_counting(read_and_write_rwlock);
}

CASE(lock, rwsem_keeps_readers_from_writers) {
  check_counting(read_and_write_rwsem);
}

CASE(lock, attempts_on_free_locks_succeed) {
  static struct Attempts attempts;
  init(&attempts.shared);
  try_in_another_thread(&attempts);
  EXPECT_TRUE(attempts.spin);
  EXPECT_TRUE(attempts.read);
  EXPECT_TRUE(attempts.write);
  EXPECT_TRUE(attempts.mutex);
  EXPECT_TRUE(attempts.down_read);
  EXPECT_TRUE(attempts.down_write);
  EXPECT_EQ(attempts.sem, 0);
}

CASE(lock, attempts_on_locks_held_for_writing_fail) {
  static struct Attempts attempts;
  init(&attempts.shared);
  mutex_lock(&attempts.shared.mutex);
  down_write(&attempts.shared.rwsem);
  down(&attempts.shared.sem);
  try_in_another_thread(&attempts);
  EXPECT_FALSE(attempts.mutex);
  EXPECT_FALSE(attempts.down_read);
  EXPECT_FALSE(attempts.down_write);
  EXPECT_NE(attempts.sem, 0);
  up(&attempts.shared.sem);
  up_write(&attempts.shared.rwsem);
  mutex_unlock(&attempts.shared.mutex);
}

CASE(lock, readers_let_readers_in_and_writers_not) {
  static struct Attempts attempts;
  init(&attempts.shared);
  down_read(&attempts.shared.rwsem);
  try_in_another_thread(&attempts);
  EXPECT_TRUE(attempts.down_read);
  EXPECT_FALSE(attempts.down_write);
  up_read(&attempts.shared.rwsem);
}

CASE(lock, rwlock_readers_nest) {
  if (sizeof(spinlock_t) == 0) return;  // a kernel for one processor: there is nothing to take
  rwlock_t rw;
  rwlock_init(&rw);
  read_lock(&rw);
  read_lock(&rw);
  EXPECT_FALSE(write_trylock(&rw));
  read_unlock(&rw);
  EXPECT_FALSE(write_trylock(&rw));
  read_unlock(&rw);
  const int taken = write_trylock(&rw);
  EXPECT_TRUE(taken);
  if (taken) write_unlock(&rw);
}

CASE(lock, is_locked_tells) {
  if (sizeof(spinlock_t) == 0) return;  // a kernel for one processor: there is nothing to take
  static DEFINE_SPINLOCK(spin);
  static DEFINE_MUTEX(mutex);
  EXPECT_FALSE(mutex_is_locked(&mutex));
  mutex_lock(&mutex);
  EXPECT_TRUE(mutex_is_locked(&mutex));
  mutex_unlock(&mutex);
  EXPECT_FALSE(mutex_is_locked(&mutex));
  spin_lock(&spin);
  EXPECT_TRUE(spin_is_locked(&spin));
  spin_unlock(&spin);
  EXPECT_FALSE(spin_is_locked(&spin));
}

CASE(lock, dec_and_lock_takes_the_lock_only_for_the_last) {
  static DEFINE_SPINLOCK(spin);
  atomic_t count = ATOMIC_INIT(2);
  EXPECT_EQ(atomic_dec_and_lock(&count, &spin), 0);
  EXPECT_FALSE(spin_is_locked(&spin));
  const int last = atomic_dec_and_lock(&count, &spin);
  EXPECT_EQ(last, 1);
  EXPECT_EQ(atomic_read(&count), 0);
  if (last) spin_unlock(&spin);
}

CASE(lock, nested_subclasses_of_one_class_go_together) {
  static struct mutex mutexes[2];
  for (auto &mutex : mutexes) mutex_init(&mutex);
  mutex_lock(&mutexes[0]);
  mutex_lock_nested(&mutexes[1], SINGLE_DEPTH_NESTING);
  mutex_unlock(&mutexes[1]);
  mutex_unlock(&mutexes[0]);
}

CASE(lock, atomic_operations_give_what_they_say) {
  atomic_t v = ATOMIC_INIT(5);
  EXPECT_EQ(atomic_add_return(3, &v), 8);
  EXPECT_EQ(atomic_sub_return(1, &v), 7);
  EXPECT_EQ(atomic_inc_return(&v), 8);
  EXPECT_EQ(atomic_dec_and_test(&v), 0);
  EXPECT_EQ(atomic_cmpxchg(&v, 7, 1), 7);
  EXPECT_EQ(atomic_read(&v), 1);
  EXPECT_EQ(atomic_add_unless(&v, 1, 1), 0);
  EXPECT_NE(atomic_inc_not_zero(&v), 0);
  EXPECT_EQ(atomic_xchg(&v, 0), 2);
  EXPECT_EQ(atomic_inc_not_zero(&v), 0);
  EXPECT_NE(atomic_add_negative(-1, &v), 0);
  EXPECT_NE(atomic_inc_and_test(&v), 0);
}

CASE(lock, bits_of_a_word) {
  unsigned long word = 0;
  set_bit(40, &word);
  EXPECT_EQ(word, 1UL << 40);
  EXPECT_TRUE(test_bit(40, &word));
  EXPECT_TRUE(test_and_set_bit(40, &word));
  EXPECT_TRUE(test_and_clear_bit(40, &word));
  EXPECT_FALSE(test_and_clear_bit(40, &word));
  change_bit(3, &word);
  EXPECT_EQ(word, 8UL);
  clear_bit(3, &word);
  EXPECT_EQ(word, 0UL);
  EXPECT_EQ(__ffs(0x50), 4UL);
  EXPECT_EQ(ffz(0x7), 3UL);
  EXPECT_EQ(fls(0x50), 7);
  EXPECT_EQ(fls64(1ULL << 40), 41);
}
