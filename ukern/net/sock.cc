// SPDX-License-Identifier: GPL-2.0
// The protocol-independent part of sockets.

#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/skbuff.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <linux/wait.h>
#include <net/sock.h>

#include "ukern/sync/guard.h"

// 256 small messages with their overhead.
static constexpr __u32 kDefaultQueueBytes = 256 * (sizeof(struct sk_buff) + 256);

extern "C" {

__u32 sysctl_wmem_default = kDefaultQueueBytes;
__u32 sysctl_rmem_default = kDefaultQueueBytes;

struct sock *sk_alloc(int family, gfp_t priority, struct proto *prot, int zero_it) {
  BUG_ON(!zero_it);
  auto *sk = static_cast<struct sock *>(kmalloc(prot->obj_size, priority));
  if (!sk) return nullptr;
  memset(sk, 0, prot->obj_size);
  sk->sk_family = family;
  sk->sk_prot = prot;
  if (!try_module_get(prot->owner)) {
    kfree(sk);
    return nullptr;
  }
  return sk;
}

void sk_free(struct sock *sk) {
  struct module *owner = sk->sk_prot->owner;
  if (sk->sk_destruct) sk->sk_destruct(sk);
  kfree(sk);
  module_put(owner);
}

void sock_rfree(struct sk_buff *skb) {
  atomic_sub(skb->truesize, &skb->sk->sk_rmem_alloc);
}

static void sock_wake_receiver(struct sock *sk) {
  ReadGuard guard(sk->sk_callback_lock);
  if (sk->sk_sleep && waitqueue_active(sk->sk_sleep)) wake_up_interruptible(sk->sk_sleep);
}

static void sock_def_readable(struct sock *sk, int) {
  sock_wake_receiver(sk);
}

static void sock_def_error_report(struct sock *sk) {
  sock_wake_receiver(sk);
}

void sock_init_data(struct socket *sock, struct sock *sk) {
  skb_queue_head_init(&sk->sk_receive_queue);
  rwlock_init(&sk->sk_callback_lock);
  sk->sk_allocation = GFP_KERNEL;
  sk->sk_rcvbuf = sysctl_rmem_default;
  sk->sk_sndbuf = sysctl_wmem_default;
  sk->sk_socket = sock;
  if (sock) {
    sk->sk_type = sock->type;
    sk->sk_sleep = &sock->wait;
    sock->sk = sk;
  }
  sk->sk_data_ready = sock_def_readable;
  sk->sk_error_report = sock_def_error_report;
  sk->sk_rcvtimeo = MAX_SCHEDULE_TIMEOUT;
  sk->sk_sndtimeo = MAX_SCHEDULE_TIMEOUT;
  atomic_set(&sk->sk_refcnt, 1);
}

}  // extern "C"
