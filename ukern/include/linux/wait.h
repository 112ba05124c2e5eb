/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Wait queues. A sleeper adds its own entry to the queue, sets its task state, tests its condition
 * and calls schedule. The task that makes the condition true wakes the queue. The queue's lock
 * protects its list and is held while the wake functions run, so these must not sleep.
 */
#ifndef _LINUX_WAIT_H
#define _LINUX_WAIT_H

#include <linux/list.h>
#include <linux/stddef.h>
#include <linux/spinlock.h>
#include <asm/current.h>
#include <asm/system.h>

typedef struct __wait_queue wait_queue_t;
typedef int (*wait_queue_func_t)(wait_queue_t *wait, unsigned mode, int sync, void *key);

#define WQ_FLAG_EXCLUSIVE 0x01

struct __wait_queue {
  unsigned int flags;
  void *private_; /* the sleeping task; null: func is only called */
  wait_queue_func_t func;
  struct list_head task_list;
};

struct __wait_queue_head {
  spinlock_t lock;
  struct list_head task_list;
};
typedef struct __wait_queue_head wait_queue_head_t;

struct task_struct;

#define __WAITQUEUE_INITIALIZER(name, tsk)                                                  \
  {                                                                                         \
    .flags = 0, .private_ = tsk, .func = default_wake_function, .task_list = { NULL, NULL } \
  }
#define DECLARE_WAITQUEUE(name, tsk) wait_queue_t name = __WAITQUEUE_INITIALIZER(name, tsk)
#define __WAIT_QUEUE_HEAD_INITIALIZER(name)                                                        \
  {                                                                                                \
    .lock = __SPIN_LOCK_UNLOCKED(name.lock), .task_list = { &(name).task_list, &(name).task_list } \
  }
#define DECLARE_WAIT_QUEUE_HEAD(name) wait_queue_head_t name = __WAIT_QUEUE_HEAD_INITIALIZER(name)

extern "C" {
void init_waitqueue_head(wait_queue_head_t *q);
/* Wakes the entry's task if its state is in `mode`: 1 when it did. */
int default_wake_function(wait_queue_t *wait, unsigned mode, int sync, void *key);
/* As default_wake_function, and removes the entry from the queue when it woke the task. */
int autoremove_wake_function(wait_queue_t *wait, unsigned mode, int sync, void *key);
void add_wait_queue(wait_queue_head_t *q, wait_queue_t *wait);
void remove_wait_queue(wait_queue_head_t *q, wait_queue_t *wait);
void __wake_up(wait_queue_head_t *q, unsigned int mode, int nr, void *key);
void __wake_up_locked(wait_queue_head_t *q, unsigned int mode);
void __wake_up_sync(wait_queue_head_t *q, unsigned int mode, int nr);
void prepare_to_wait(wait_queue_head_t *q, wait_queue_t *wait, int state);
void prepare_to_wait_exclusive(wait_queue_head_t *q, wait_queue_t *wait, int state);
void finish_wait(wait_queue_head_t *q, wait_queue_t *wait);
}

static inline int waitqueue_active(wait_queue_head_t *q) {
  return !list_empty(&q->task_list);
}

#define is_sync_wait(wait) (!(wait) || ((wait)->private_))

static inline void __add_wait_queue(wait_queue_head_t *head, wait_queue_t *entry) {
  list_add(&entry->task_list, &head->task_list);
}
static inline void __add_wait_queue_tail(wait_queue_head_t *head, wait_queue_t *entry) {
  list_add_tail(&entry->task_list, &head->task_list);
}
static inline void __remove_wait_queue(wait_queue_head_t *, wait_queue_t *old) {
  list_del(&old->task_list);
}

#define wake_up(x) __wake_up(x, TASK_UNINTERRUPTIBLE | TASK_INTERRUPTIBLE, 1, NULL)
#define wake_up_nr(x, nr) __wake_up(x, TASK_UNINTERRUPTIBLE | TASK_INTERRUPTIBLE, nr, NULL)
#define wake_up_all(x) __wake_up(x, TASK_UNINTERRUPTIBLE | TASK_INTERRUPTIBLE, 0, NULL)
#define wake_up_interruptible(x) __wake_up(x, TASK_INTERRUPTIBLE, 1, NULL)
#define wake_up_interruptible_nr(x, nr) __wake_up(x, TASK_INTERRUPTIBLE, nr, NULL)
#define wake_up_interruptible_all(x) __wake_up(x, TASK_INTERRUPTIBLE, 0, NULL)
#define wake_up_locked(x) __wake_up_locked((x), TASK_UNINTERRUPTIBLE | TASK_INTERRUPTIBLE)
#define wake_up_interruptible_sync(x) __wake_up_sync((x), TASK_INTERRUPTIBLE, 1)

#define DEFINE_WAIT(name)                                  \
  wait_queue_t name = {                                    \
      .flags = 0,                                          \
      .private_ = current,                                 \
      .func = autoremove_wake_function,                    \
      .task_list = {&(name).task_list, &(name).task_list}, \
  }

#define init_wait(wait)                      \
  do {                                       \
    (wait)->private_ = current;              \
    (wait)->func = autoremove_wake_function; \
    INIT_LIST_HEAD(&(wait)->task_list);      \
  } while (0)

#define wait_event(wq, condition)                               \
  do {                                                          \
    might_sleep();                                              \
    if (condition) break;                                       \
    DEFINE_WAIT(wait_entry_);                                   \
    for (;;) {                                                  \
      prepare_to_wait(&wq, &wait_entry_, TASK_UNINTERRUPTIBLE); \
      if (condition) break;                                     \
      schedule();                                               \
    }                                                           \
    finish_wait(&wq, &wait_entry_);                             \
  } while (0)

/* Jiffies left, or 0 when the time ran out with the condition false. */
#define wait_event_timeout(wq, condition, timeout)                \
  ({                                                              \
    long wait_left_ = timeout;                                    \
    might_sleep();                                                \
    if (!(condition)) {                                           \
      DEFINE_WAIT(wait_entry_);                                   \
      for (;;) {                                                  \
        prepare_to_wait(&wq, &wait_entry_, TASK_UNINTERRUPTIBLE); \
        if (condition) break;                                     \
        wait_left_ = schedule_timeout(wait_left_);                \
        if (!wait_left_) break;                                   \
      }                                                           \
      finish_wait(&wq, &wait_entry_);                             \
    }                                                             \
    wait_left_;                                                   \
  })

/* 0, or -ERESTARTSYS when a signal came first. */
#define wait_event_interruptible(wq, condition)                 \
  ({                                                            \
    int wait_result_ = 0;                                       \
    might_sleep();                                              \
    if (!(condition)) {                                         \
      DEFINE_WAIT(wait_entry_);                                 \
      for (;;) {                                                \
        prepare_to_wait(&wq, &wait_entry_, TASK_INTERRUPTIBLE); \
        if (condition) break;                                   \
        if (signal_pending(current)) {                          \
          wait_result_ = -ERESTARTSYS;                          \
          break;                                                \
        }                                                       \
        schedule();                                             \
      }                                                         \
      finish_wait(&wq, &wait_entry_);                           \
    }                                                           \
    wait_result_;                                               \
  })

/* Jiffies left, 0 when the time ran out, -ERESTARTSYS when a signal came first. */
#define wait_event_interruptible_timeout(wq, condition, timeout) \
  ({                                                             \
    long wait_left_ = timeout;                                   \
    might_sleep();                                               \
    if (!(condition)) {                                          \
      DEFINE_WAIT(wait_entry_);                                  \
      for (;;) {                                                 \
        prepare_to_wait(&wq, &wait_entry_, TASK_INTERRUPTIBLE);  \
        if (condition) break;                                    \
        if (signal_pending(current)) {                           \
          wait_left_ = -ERESTARTSYS;                             \
          break;                                                 \
        }                                                        \
        wait_left_ = schedule_timeout(wait_left_);               \
        if (!wait_left_) break;                                  \
      }                                                          \
      finish_wait(&wq, &wait_entry_);                            \
    }                                                            \
    wait_left_;                                                  \
  })

#endif
