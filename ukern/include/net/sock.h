/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The network side of a socket: queues, memory accounting, time-outs and callbacks.
 *
 * A struct sock is reference counted (sock_hold, sock_put); the last reference calls sk_destruct
 * and frees it. sk_callback_lock protects sk_socket and sk_sleep against sock_orphan; the receive
 * queue has a lock of its own; sk_rmem_alloc is atomic; the creator sets up the rest before the
 * socket is shared.
 */
#ifndef UKERN_NET_SOCK_H
#define UKERN_NET_SOCK_H

#include <linux/types.h>
#include <linux/kernel.h>
#include <linux/errno.h>
#include <linux/list.h>
#include <linux/wait.h>
#include <linux/spinlock.h>
#include <linux/sched.h>
#include <linux/socket.h>
#include <linux/net.h>
#include <linux/skbuff.h>
#include <asm/atomic.h>
#include <asm/bitops.h>

struct module;
struct proto;

struct sock_common {
  unsigned short skc_family;
  volatile unsigned char skc_state;
  struct hlist_node skc_node; /* in the protocol's table */
  atomic_t skc_refcnt;
  struct proto *skc_prot;
};

struct sock {
  struct sock_common __sk_common;
#define sk_family __sk_common.skc_family
#define sk_state __sk_common.skc_state
#define sk_node __sk_common.skc_node
#define sk_refcnt __sk_common.skc_refcnt
#define sk_prot __sk_common.skc_prot
  unsigned char sk_shutdown;
  unsigned char sk_protocol;
  unsigned short sk_type;
  int sk_rcvbuf; /* limit of sk_rmem_alloc in bytes above which senders wait */
  wait_queue_head_t *sk_sleep;
  atomic_t sk_rmem_alloc; /* truesize of the buffers queued for receiving */
  struct sk_buff_head sk_receive_queue;
  gfp_t sk_allocation;
  int sk_sndbuf; /* longest message plus 32 bytes */
  unsigned long sk_flags;
  rwlock_t sk_callback_lock;
  int sk_err; /* positive; reported once */
  long sk_rcvtimeo;
  long sk_sndtimeo;
  struct socket *sk_socket;
  void *sk_user_data;
  void (*sk_data_ready)(struct sock *sk, int bytes);
  void (*sk_error_report)(struct sock *sk);
  void (*sk_destruct)(struct sock *sk);
};

/* A protocol and the size of its sockets. */
struct proto {
  struct module *owner;
  unsigned int obj_size;
  char name[32];
};

enum sock_flags {
  SOCK_DEAD, /* released by its user: its struct socket is gone */
};

#define SHUTDOWN_MASK 3
#define RCV_SHUTDOWN 1
#define SEND_SHUTDOWN 2

#ifdef __cplusplus
extern "C" {
#endif

extern __u32 sysctl_wmem_default;
extern __u32 sysctl_rmem_default;

/* A zeroed socket of prot->obj_size bytes (`zero_it` must be 1) with reference count 0; null
 * without memory. */
struct sock *sk_alloc(int family, gfp_t priority, struct proto *prot, int zero_it);
void sk_free(struct sock *sk);
/* Initialises queues and defaults, with one reference. `sock` may be null. */
void sock_init_data(struct socket *sock, struct sock *sk);
/* The skb destructor of a buffer on a receive queue. */
void sock_rfree(struct sk_buff *skb);

#ifdef __cplusplus
}
#endif

static inline void sock_hold(struct sock *sk) {
  atomic_inc(&sk->sk_refcnt);
}

static inline void sock_put(struct sock *sk) {
  if (atomic_dec_and_test(&sk->sk_refcnt)) sk_free(sk);
}

static inline void sock_set_flag(struct sock *sk, enum sock_flags flag) {
  set_bit(flag, &sk->sk_flags);  // waiting senders read it without the lock
}

static inline int sock_flag(struct sock *sk, enum sock_flags flag) {
  return test_bit(flag, &sk->sk_flags);
}

/* Detaches the sock from its struct socket, which is about to be freed. */
static inline void sock_orphan(struct sock *sk) {
  write_lock_bh(&sk->sk_callback_lock);
  sock_set_flag(sk, SOCK_DEAD);
  sk->sk_socket = NULL;
  sk->sk_sleep = NULL;
  write_unlock_bh(&sk->sk_callback_lock);
}

/* Charges the buffer to the receive memory of `sk`. */
static inline void skb_set_owner_r(struct sk_buff *skb, struct sock *sk) {
  skb->sk = sk;
  skb->destructor = sock_rfree;
  atomic_add(skb->truesize, &sk->sk_rmem_alloc);
}

/* Returns the pending error as a negative number and clears it; 0 when there is none. */
static inline int sock_error(struct sock *sk) {
  if (likely(!__atomic_load_n(&sk->sk_err, __ATOMIC_RELAXED))) return 0;
  return -__atomic_exchange_n(&sk->sk_err, 0, __ATOMIC_ACQ_REL);
}

static inline long sock_rcvtimeo(const struct sock *sk, int noblock) {
  return noblock ? 0 : sk->sk_rcvtimeo;
}

static inline long sock_sndtimeo(const struct sock *sk, int noblock) {
  return noblock ? 0 : sk->sk_sndtimeo;
}

/* The error of a wait that a signal ended: only one without a time-out may be restarted. */
static inline int sock_intr_errno(long timeo) {
  return timeo == MAX_SCHEDULE_TIMEOUT ? -ERESTARTSYS : -EINTR;
}

#endif
