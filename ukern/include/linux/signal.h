/* SPDX-License-Identifier: GPL-2.0 */
/* Sets of signals. Bit n - 1 is signal n. */
#ifndef _LINUX_SIGNAL_H
#define _LINUX_SIGNAL_H

#include <linux/list.h>
#include <linux/spinlock.h>
#include <asm/signal.h>

struct sigpending {
  sigset_t signal; /* under the sighand's siglock */
};

#define sigmask(sig) (1UL << ((sig)-1))

static inline void sigemptyset(sigset_t *set) {
  set->sig[0] = 0;
}
static inline void sigfillset(sigset_t *set) {
  set->sig[0] = ~0UL;
}
static inline void sigaddset(sigset_t *set, int sig) {
  set->sig[0] |= sigmask(sig);
}
static inline void sigdelset(sigset_t *set, int sig) {
  set->sig[0] &= ~sigmask(sig);
}
static inline int sigismember(sigset_t *set, int sig) {
  return (set->sig[0] & sigmask(sig)) != 0;
}
static inline void siginitset(sigset_t *set, unsigned long mask) {
  set->sig[0] = mask;
}
static inline void siginitsetinv(sigset_t *set, unsigned long mask) {
  set->sig[0] = ~mask;
}

extern "C" {
/* Changes the signals that the current task blocks, SIGKILL and SIGSTOP not excepted: 0, -EINVAL
 * for no such `how`. `oldset`, unless null, receives the earlier set. */
int sigprocmask(int how, sigset_t *set, sigset_t *oldset);
}

static inline int valid_signal(unsigned long sig) {
  return sig <= _NSIG;
}

#endif
