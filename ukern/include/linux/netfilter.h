/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Registered socket options: ranges of option numbers of one protocol family and their handlers.
 *
 * The structure is the registering code's and must stay until nf_unregister_sockopt has returned.
 * Handlers run in the calling process without any lock held and may sleep.
 */
#ifndef UKERN_LINUX_NETFILTER_H
#define UKERN_LINUX_NETFILTER_H

#include <linux/compiler.h>
#include <linux/list.h>

struct sock;
struct task_struct;

struct nf_sockopt_ops {
  struct list_head list;

  int pf;

  /* From optmin up to, not including, optmax; 0 and 0: never called. */
  int set_optmin;
  int set_optmax;
  int (*set)(struct sock *sk, int optval, void __user *user, unsigned int len);
  int (*compat_set)(struct sock *sk, int optval, void __user *user, unsigned int len);

  int get_optmin;
  int get_optmax;
  int (*get)(struct sock *sk, int optval, void __user *user, int *len);
  int (*compat_get)(struct sock *sk, int optval, void __user *user, int *len);

  unsigned int use; /* calls of set() or get() in progress; under the option mutex, like the list */
  struct task_struct *cleanup_task;
};

#ifdef __cplusplus
extern "C" {
#endif

/*
 * 0; -EBUSY when a range overlaps one that is registered for the same family; -EINTR when the
 * option mutex is contended and a signal is pending. May sleep.
 */
int nf_register_sockopt(struct nf_sockopt_ops *reg);
/* Waits, not interruptibly, until no call of the handlers is in progress. May sleep. */
void nf_unregister_sockopt(struct nf_sockopt_ops *reg);

/*
 * Call the handler that is registered for option `optval` of family `pf` and return its result;
 * -ENOPROTOOPT when there is none, -EINTR when the option mutex is contended and a signal is
 * pending. May sleep.
 */
int nf_setsockopt(struct sock *sk, int pf, int optval, char __user *opt, int len);
int nf_getsockopt(struct sock *sk, int pf, int optval, char __user *opt, int *len);

#ifdef __cplusplus
}
#endif
#endif
