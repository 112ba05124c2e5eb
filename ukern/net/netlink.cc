// SPDX-License-Identifier: GPL-2.0
// Netlink sockets: ports, unicast with receive-queue limits and send time-outs, messages from
// processes.

#include <asm/bitops.h>
#include <linux/capability.h>
#include <linux/err.h>
#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/list.h>
#include <linux/module.h>
#include <linux/netlink.h>
#include <linux/sched.h>
#include <linux/skbuff.h>
#include <linux/socket.h>
#include <linux/spinlock.h>
#include <linux/string.h>
#include <linux/wait.h>
#include <net/sock.h>

#include "ukern/net/net.h"
#include "ukern/sync/guard.h"

static_assert(sizeof(struct netlink_skb_parms) <= sizeof(sk_buff::cb), "the parameters fit in cb");

static constexpr int kCongested = 0;  // bit of netlink_sock::state

struct netlink_sock {
  struct sock sk;  // has to be first
  u32 pid;         // port; set once, under nl_table_lock
  u32 dst_pid;     // peer's port, set by connect
  unsigned long state;
  wait_queue_head_t wait;  // senders, while the receive queue is full
  void (*data_ready)(struct sock *sk, int bytes);
  struct module *module;  // owner of the unit's kernel socket
};

struct netlink_unit {
  struct hlist_head socks;
  struct module *module;
  int registered;  // there is a kernel socket
};

// All units, under nl_table_lock.
static DEFINE_RWLOCK(nl_table_lock);
static struct netlink_unit nl_table[MAX_LINKS];

static struct proto netlink_proto = {
    .owner = THIS_MODULE,
    .obj_size = sizeof(struct netlink_sock),
    .name = "NETLINK",
};

extern "C" const struct proto_ops netlink_ops;

static struct netlink_sock *nlk_sk(struct sock *sk) {
  return reinterpret_cast<struct netlink_sock *>(sk);
}

// Ports.

static struct sock *netlink_find_locked(int unit, u32 pid) {
  struct hlist_node *node;
  hlist_for_each(node, &nl_table[unit].socks) {
    struct sock *sk = hlist_entry(node, struct sock, sk_node);
    if (nlk_sk(sk)->pid == pid) return sk;
  }
  return nullptr;
}

// Gets the socket at a port, with a reference, or null.
static struct sock *netlink_lookup(int unit, u32 pid) {
  ReadGuard guard(nl_table_lock);
  struct sock *sk = netlink_find_locked(unit, pid);
  if (sk) sock_hold(sk);
  return sk;
}

// The table takes a reference of its own.
static int netlink_insert(struct sock *sk, u32 pid) {
  int err = 0;
  might_sleep();
  WriteGuard guard(nl_table_lock);
  if (netlink_find_locked(sk->sk_protocol, pid)) {
    err = -EADDRINUSE;
  } else if (nlk_sk(sk)->pid) {
    err = -EBUSY;
  } else {
    nlk_sk(sk)->pid = pid;
    sock_hold(sk);
    hlist_add_head(&sk->sk_node, &nl_table[sk->sk_protocol].socks);
  }
  return err;
}

static void netlink_remove(struct sock *sk) {
  might_sleep();
  {
    WriteGuard guard(nl_table_lock);
    if (hlist_unhashed(&sk->sk_node)) return;
    hlist_del_init(&sk->sk_node);
  }
  sock_put(sk);
}

static int netlink_autobind(struct socket *sock) {
  static s32 rover = -4097;  // under nl_table_lock
  struct sock *sk = sock->sk;
  s32 pid = current->tgid;
  for (;;) {
    cond_resched();
    {
      WriteGuard guard(nl_table_lock);
      if (netlink_find_locked(sk->sk_protocol, pid)) {
        pid = rover--;
        if (rover > -4097) rover = -4097;
        continue;
      }
    }
    const int err = netlink_insert(sk, pid);
    if (err == -EADDRINUSE) continue;
    return err == -EBUSY ? 0 : err;  // another task has bound the socket meanwhile
  }
}

// Creation and release.

static void netlink_sock_destruct(struct sock *sk) {
  skb_queue_purge(&sk->sk_receive_queue);
  if (!sock_flag(sk, SOCK_DEAD)) {
    printk("Freeing alive netlink socket %p\n", sk);
    return;
  }
  WARN_ON(atomic_read(&sk->sk_rmem_alloc));
}

static int __netlink_create(struct socket *sock, int unit) {
  sock->ops = &netlink_ops;
  struct sock *sk = sk_alloc(PF_NETLINK, GFP_KERNEL, &netlink_proto, 1);
  if (!sk) return -ENOMEM;
  sock_init_data(sock, sk);
  init_waitqueue_head(&nlk_sk(sk)->wait);
  sk->sk_destruct = netlink_sock_destruct;
  sk->sk_protocol = unit;
  return 0;
}

int ukern::netlink_create(struct socket *sock, int protocol) {
  sock->state = SS_UNCONNECTED;
  if (sock->type != SOCK_RAW && sock->type != SOCK_DGRAM) return -ESOCKTNOSUPPORT;
  if (protocol < 0 || protocol >= MAX_LINKS) return -EPROTONOSUPPORT;

  struct module *module = nullptr;
  {
    ReadGuard guard(nl_table_lock);
    if (nl_table[protocol].registered && try_module_get(nl_table[protocol].module))
      module = nl_table[protocol].module;
  }

  const int err = __netlink_create(sock, protocol);
  if (err) {
    module_put(module);
    return err;
  }
  nlk_sk(sock->sk)->module = module;
  return 0;
}

static int netlink_release(struct socket *sock) {
  struct sock *sk = sock->sk;
  if (!sk) return 0;
  struct netlink_sock *nlk = nlk_sk(sk);

  netlink_remove(sk);
  // No new buffer can arrive now; waiting senders look the port up again and do not find it.
  sock_orphan(sk);
  sock->sk = nullptr;
  wake_up_interruptible_all(&nlk->wait);

  if (nlk->module) module_put(nlk->module);
  sock_put(sk);
  return 0;
}

// The kernel's socket frees its unit before it is released.
static int netlink_kernel_release(struct socket *sock) {
  if (sock->sk) {
    struct netlink_unit *unit = &nl_table[sock->sk->sk_protocol];
    WriteGuard guard(nl_table_lock);
    unit->module = nullptr;
    unit->registered = 0;
  }
  return netlink_release(sock);
}

static int netlink_bind(struct socket *sock, struct sockaddr *addr, int) {
  const auto *to = reinterpret_cast<struct sockaddr_nl *>(addr);
  struct netlink_sock *nlk = nlk_sk(sock->sk);
  if (to->nl_family != AF_NETLINK) return -EINVAL;
  if (to->nl_groups) return capable(CAP_NET_ADMIN) ? -EOPNOTSUPP : -EPERM;
  if (nlk->pid) return to->nl_pid == nlk->pid ? 0 : -EINVAL;
  return to->nl_pid ? netlink_insert(sock->sk, to->nl_pid) : netlink_autobind(sock);
}

static int netlink_connect(struct socket *sock, struct sockaddr *addr, int, int) {
  const auto *to = reinterpret_cast<struct sockaddr_nl *>(addr);
  struct netlink_sock *nlk = nlk_sk(sock->sk);
  if (addr->sa_family == AF_UNSPEC) {
    sock->sk->sk_state = NETLINK_UNCONNECTED;
    nlk->dst_pid = 0;
    return 0;
  }
  if (addr->sa_family != AF_NETLINK) return -EINVAL;
  if (to->nl_groups) return capable(CAP_NET_ADMIN) ? -EOPNOTSUPP : -EPERM;
  const int err = nlk->pid ? 0 : netlink_autobind(sock);
  if (err) return err;
  sock->sk->sk_state = NETLINK_CONNECTED;
  nlk->dst_pid = to->nl_pid;
  return 0;
}

static int netlink_getname(struct socket *sock, struct sockaddr *addr, int *addr_len, int peer) {
  auto *name = reinterpret_cast<struct sockaddr_nl *>(addr);
  struct netlink_sock *nlk = nlk_sk(sock->sk);
  name->nl_family = AF_NETLINK;
  name->nl_pad = 0;
  name->nl_pid = peer ? nlk->dst_pid : nlk->pid;
  name->nl_groups = 0;
  *addr_len = sizeof(*name);
  return 0;
}

// Sending.

static bool netlink_full(struct sock *sk) {
  return atomic_read(&sk->sk_rmem_alloc) > sk->sk_rcvbuf ||
         test_bit(kCongested, &nlk_sk(sk)->state);
}

static void netlink_overrun(struct sock *sk) {
  if (test_and_set_bit(kCongested, &nlk_sk(sk)->state)) return;
  __atomic_store_n(&sk->sk_err, ENOBUFS, __ATOMIC_RELEASE);
  sk->sk_error_report(sk);
}

static struct sock *netlink_getsockbypid(struct sock *ssk, u32 pid) {
  struct sock *sk = netlink_lookup(ssk->sk_protocol, pid);
  if (!sk) return static_cast<struct sock *>(ERR_PTR(-ECONNREFUSED));
  struct netlink_sock *nlk = nlk_sk(sk);
  const bool kernel_without_input = nlk->pid == 0 && !nlk->data_ready;
  const bool connected_to_other =
      sk->sk_state == NETLINK_CONNECTED && nlk->dst_pid != nlk_sk(ssk)->pid;
  if (kernel_without_input || connected_to_other) {
    sock_put(sk);
    return static_cast<struct sock *>(ERR_PTR(-ECONNREFUSED));
  }
  return sk;
}

// Sleeps until the receiver has read something or is gone, a signal comes, or the time is up, which
// sets *timeo to 0. If other senders take the room meanwhile, the caller waits again with the full
// time.
static void netlink_wait_for_room(struct sock *sk, long *timeo) {
  DECLARE_WAITQUEUE(wait, current);
  add_wait_queue(&nlk_sk(sk)->wait, &wait);
  set_current_state(TASK_INTERRUPTIBLE);
  if (netlink_full(sk) && !sock_flag(sk, SOCK_DEAD) && schedule_timeout(*timeo) == 0) *timeo = 0;
  __set_current_state(TASK_RUNNING);
  remove_wait_queue(&nlk_sk(sk)->wait, &wait);
}

enum class Attach { kDone, kRetry };

// Charges the buffer to the receiver. On an error the buffer is freed; unless the result is kDone
// the reference to the receiver is dropped.
static int netlink_attachskb(struct sock *sk, struct sk_buff *skb, long *timeo, struct sock *ssk,
                             Attach *what) {
  if (!netlink_full(sk)) {
    skb_set_owner_r(skb, sk);
    *what = Attach::kDone;
    return 0;
  }

  *what = Attach::kRetry;
  int err = 0;
  if (!*timeo) {
    if (nlk_sk(ssk)->pid == 0) netlink_overrun(sk);
    err = -EAGAIN;
  } else {
    netlink_wait_for_room(sk, timeo);
    if (signal_pending(current)) err = sock_intr_errno(*timeo);
  }
  sock_put(sk);
  if (err) kfree_skb(skb);
  return err;
}

// Shrinks a mostly empty buffer, so that it is charged by its content.
static void netlink_trim(struct sk_buff *skb) {
  skb_orphan(skb);
  const int delta = skb->end - skb->tail;
  if (delta * 2 < static_cast<int>(skb->truesize) || skb_shared(skb)) return;
  if (pskb_expand_head(skb, 0, -delta, GFP_KERNEL) == 0) skb->truesize -= delta;
}

static int netlink_sendskb(struct sock *sk, struct sk_buff *skb) {
  const int len = skb->len;  // the buffer is the receiver's once it is queued
  skb_queue_tail(&sk->sk_receive_queue, skb);
  sk->sk_data_ready(sk, len);
  sock_put(sk);
  return len;
}

extern "C" int netlink_unicast(struct sock *ssk, struct sk_buff *skb, u32 pid, int nonblock) {
  long timeo = sock_sndtimeo(ssk, nonblock);
  might_sleep_if(timeo);
  netlink_trim(skb);
  for (;;) {
    struct sock *sk = netlink_getsockbypid(ssk, pid);
    if (IS_ERR(sk)) {
      kfree_skb(skb);
      return PTR_ERR(sk);
    }
    Attach what;
    const int err = netlink_attachskb(sk, skb, &timeo, ssk, &what);
    if (err) return err;
    if (what == Attach::kDone) return netlink_sendskb(sk, skb);
  }
}

// Messages from processes.

void ukern::netlink_rcv_wake(struct sock *sk) {
  struct netlink_sock *nlk = nlk_sk(sk);
  bool empty;
  {
    SpinGuard guard(sk->sk_receive_queue.lock);
    empty = skb_queue_empty(&sk->sk_receive_queue);
  }
  if (empty) clear_bit(kCongested, &nlk->state);
  if (!test_bit(kCongested, &nlk->state)) wake_up_interruptible(&nlk->wait);
}

static void netlink_stamp(struct sk_buff *skb, struct sock *sk, u32 dst_pid) {
  struct netlink_skb_parms *parms = &NETLINK_CB(skb);
  parms->pid = nlk_sk(sk)->pid;
  parms->dst_pid = dst_pid;
  parms->dst_group = 0;
  parms->creds.pid = current->tgid;
  parms->creds.uid = current->uid;
  parms->creds.gid = current->gid;
  parms->eff_cap = current->cap_effective;
}

static int netlink_sendmsg(struct kiocb *, struct socket *sock, struct msghdr *msg, size_t len) {
  struct sock *sk = sock->sk;
  struct netlink_sock *nlk = nlk_sk(sk);
  if (msg->msg_flags & MSG_OOB) return -EOPNOTSUPP;
  if (msg->msg_controllen) return -EINVAL;

  u32 dst_pid = nlk->dst_pid;
  if (msg->msg_namelen) {
    const auto *addr = static_cast<struct sockaddr_nl *>(msg->msg_name);
    if (addr->nl_family != AF_NETLINK) return -EINVAL;
    if (addr->nl_groups) return capable(CAP_NET_ADMIN) ? -EOPNOTSUPP : -EPERM;
    dst_pid = addr->nl_pid;
  }
  if (!nlk->pid) {
    const int err = netlink_autobind(sock);
    if (err) return err;
  }
  if (len > static_cast<size_t>(sk->sk_sndbuf - 32)) return -EMSGSIZE;

  struct sk_buff *skb = alloc_skb(len, GFP_KERNEL);
  if (!skb) return -ENOBUFS;
  netlink_stamp(skb, sk, dst_pid);
  if (memcpy_fromiovec(skb_put(skb, len), msg->msg_iov, len)) {
    kfree_skb(skb);
    return -EFAULT;
  }
  return netlink_unicast(sk, skb, dst_pid, msg->msg_flags & MSG_DONTWAIT);
}

static int netlink_recvmsg(struct kiocb *, struct socket *sock, struct msghdr *msg, size_t len,
                           int flags) {
  struct sock *sk = sock->sk;
  if (flags & MSG_OOB) return -EOPNOTSUPP;

  int err = 0;
  size_t copied = 0;
  struct sk_buff *skb = skb_recv_datagram(sk, flags, flags & MSG_DONTWAIT, &err);
  if (skb) {
    msg->msg_namelen = 0;
    copied = skb->len;
    if (len < copied) {
      msg->msg_flags |= MSG_TRUNC;
      copied = len;
    }
    err = skb_copy_datagram_iovec(skb, 0, msg->msg_iov, copied);
    if (msg->msg_name) {
      auto *addr = static_cast<struct sockaddr_nl *>(msg->msg_name);
      addr->nl_family = AF_NETLINK;
      addr->nl_pad = 0;
      addr->nl_pid = NETLINK_CB(skb).pid;
      addr->nl_groups = 0;
      msg->msg_namelen = sizeof(*addr);
    }
    skb_free_datagram(sk, skb);
  }
  ukern::netlink_rcv_wake(sk);
  return err ? err : static_cast<int>(copied);
}

extern "C" {

const struct proto_ops netlink_ops = {
    .family = PF_NETLINK,
    .owner = THIS_MODULE,
    .release = netlink_release,
    .bind = netlink_bind,
    .connect = netlink_connect,
    .getname = netlink_getname,
    .sendmsg = netlink_sendmsg,
    .recvmsg = netlink_recvmsg,
};

}  // extern "C"

// The kernel's socket: the same operations but for the release.
static const struct proto_ops netlink_kernel_ops = {
    .family = PF_NETLINK,
    .owner = THIS_MODULE,
    .release = netlink_kernel_release,
    .bind = netlink_bind,
    .connect = netlink_connect,
    .getname = netlink_getname,
    .sendmsg = netlink_sendmsg,
    .recvmsg = netlink_recvmsg,
};

static void netlink_data_ready(struct sock *sk, int len) {
  if (nlk_sk(sk)->data_ready) nlk_sk(sk)->data_ready(sk, len);
  ukern::netlink_rcv_wake(sk);
}

extern "C" struct sock *netlink_kernel_create(int unit, unsigned int,
                                              void (*input)(struct sock *sk, int len),
                                              struct module *module) {
  if (unit < 0 || unit >= MAX_LINKS) return nullptr;
  struct socket *sock;
  if (sock_create_lite(PF_NETLINK, SOCK_DGRAM, unit, &sock)) return nullptr;
  if (__netlink_create(sock, unit) < 0) {
    sock_release(sock);
    return nullptr;
  }

  struct sock *sk = sock->sk;
  sk->sk_data_ready = netlink_data_ready;
  nlk_sk(sk)->data_ready = input;
  if (netlink_insert(sk, 0)) {
    sock_release(sock);
    return nullptr;
  }
  sock->ops = &netlink_kernel_ops;

  WriteGuard guard(nl_table_lock);
  nl_table[unit].module = module;
  nl_table[unit].registered = 1;
  return sk;
}
