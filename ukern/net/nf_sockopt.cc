// SPDX-License-Identifier: GPL-2.0
// Registered socket options.

#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/list.h>
#include <linux/mutex.h>
#include <linux/netfilter.h>
#include <linux/sched.h>
#include <net/sock.h>

#include "ukern/sync/guard.h"

// Protects the list and its entries' `use` and `cleanup_task`. Not held while a handler runs.
static DEFINE_MUTEX(nf_sockopt_mutex);
static LIST_HEAD(nf_sockopts);

// Ranges are from min up to, not including, max.
static bool overlap(int min1, int max1, int min2, int max2) {
  return max1 > min2 && min1 < max2;
}

static bool collides(const struct nf_sockopt_ops *a, const struct nf_sockopt_ops *b) {
  if (a->pf != b->pf) return false;
  return overlap(a->set_optmin, a->set_optmax, b->set_optmin, b->set_optmax) ||
         overlap(a->get_optmin, a->get_optmax, b->get_optmin, b->get_optmax);
}

// The mutex is never held for long, so the wait is not interruptible; only a signal that is already
// pending counts.
static int lock_unless_signalled() {
  might_sleep();
  if (mutex_trylock(&nf_sockopt_mutex)) return 0;
  if (signal_pending(current)) return -EINTR;
  mutex_lock(&nf_sockopt_mutex);
  return 0;
}

enum class Direction { kSet, kGet };

static struct nf_sockopt_ops *find_ops_locked(int pf, int optval, Direction direction) {
  struct nf_sockopt_ops *ops;
  list_for_each_entry(ops, &nf_sockopts, list) {
    if (ops->pf != pf) continue;
    const int min = direction == Direction::kGet ? ops->get_optmin : ops->set_optmin;
    const int max = direction == Direction::kGet ? ops->get_optmax : ops->set_optmax;
    if (optval >= min && optval < max) return ops;
  }
  return nullptr;
}

static int nf_sockopt(struct sock *sk, int pf, int optval, char __user *opt, int *len,
                      Direction direction) {
  if (lock_unless_signalled()) return -EINTR;
  struct nf_sockopt_ops *ops = find_ops_locked(pf, optval, direction);
  if (ops) ops->use++;
  mutex_unlock(&nf_sockopt_mutex);  // hand-over: from lock_unless_signalled
  if (!ops) return -ENOPROTOOPT;

  const int ret = direction == Direction::kGet ? ops->get(sk, optval, opt, len)
                                               : ops->set(sk, optval, opt, *len);

  MutexGuard guard(nf_sockopt_mutex);
  ops->use--;
  if (ops->cleanup_task) wake_up_process(ops->cleanup_task);
  return ret;
}

// False when calls are in progress: then this task is set to sleep.
static bool unlist_if_idle(struct nf_sockopt_ops *ops) {
  MutexGuard guard(nf_sockopt_mutex);
  if (ops->use == 0) {
    list_del(&ops->list);
    return true;
  }
  // The last call wakes this task, but not before the mutex is free.
  set_current_state(TASK_UNINTERRUPTIBLE);
  ops->cleanup_task = current;
  return false;
}

extern "C" {

int nf_register_sockopt(struct nf_sockopt_ops *reg) {
  if (lock_unless_signalled()) return -EINTR;
  int ret = 0;
  struct nf_sockopt_ops *ops;
  list_for_each_entry(ops, &nf_sockopts, list) {
    if (!collides(ops, reg)) continue;
    ret = -EBUSY;
    break;
  }
  if (!ret) list_add(&reg->list, &nf_sockopts);
  mutex_unlock(&nf_sockopt_mutex);  // hand-over: from lock_unless_signalled
  return ret;
}

void nf_unregister_sockopt(struct nf_sockopt_ops *reg) {
  while (!unlist_if_idle(reg)) schedule();
}

int nf_setsockopt(struct sock *sk, int pf, int optval, char __user *opt, int len) {
  return nf_sockopt(sk, pf, optval, opt, &len, Direction::kSet);
}

int nf_getsockopt(struct sock *sk, int pf, int optval, char __user *opt, int *len) {
  return nf_sockopt(sk, pf, optval, opt, len, Direction::kGet);
}

}  // extern "C"
