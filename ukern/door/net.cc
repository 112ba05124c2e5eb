// SPDX-License-Identifier: GPL-2.0
// Socket calls of the hosting program.

#include "ukern/door/uk_net.h"

#include <asm/uaccess.h>
#include <linux/errno.h>
#include <linux/jiffies.h>
#include <linux/kernel.h>
#include <linux/net.h>
#include <linux/netfilter.h>
#include <linux/netlink.h>
#include <linux/sched.h>
#include <linux/skbuff.h>
#include <linux/slab.h>
#include <linux/socket.h>
#include <linux/string.h>
#include <net/sock.h>

#include "ukern/net/net.h"
#include "ukern/sched/user_memory.h"

// The smallest receive buffer that SO_RCVBUF sets.
static constexpr unsigned long kMinRcvbuf = 256;
static constexpr unsigned long kMaxRcvbuf = 0x3fffffff;  // still an int when doubled

static struct socket *socket_of(struct uk_nlsock *sock) {
  return reinterpret_cast<struct socket *>(sock);
}

// Socket options are set on a temporary socket.
static struct proto option_proto = {
    .owner = nullptr,
    .obj_size = sizeof(struct sock),
    .name = "OPTIONS",
};

static struct sock *option_sock(int pf) {
  struct sock *sk = sk_alloc(pf, GFP_KERNEL, &option_proto, 1);
  if (sk) sock_init_data(nullptr, sk);
  return sk;
}

extern "C" {

int uk_nl_open(int unit, unsigned port, unsigned long rcvbuf, struct uk_nlsock **out) {
  struct socket *sock;
  int err = sock_create_kern(PF_NETLINK, SOCK_RAW, unit, &sock);
  if (err) return err;

  if (rcvbuf) {
    if (rcvbuf < kMinRcvbuf) rcvbuf = kMinRcvbuf;
    if (rcvbuf > kMaxRcvbuf) rcvbuf = kMaxRcvbuf;
    sock->sk->sk_rcvbuf = rcvbuf * 2;
  }
  struct sockaddr_nl addr;
  memset(&addr, 0, sizeof(addr));
  addr.nl_family = AF_NETLINK;
  addr.nl_pid = port;
  err = sock->ops->bind(sock, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr));
  if (err) {
    sock_release(sock);
    return err;
  }
  *out = reinterpret_cast<struct uk_nlsock *>(sock);
  return 0;
}

unsigned uk_nl_port(struct uk_nlsock *sock) {
  struct sockaddr_nl addr;
  int len;
  socket_of(sock)->ops->getname(socket_of(sock), reinterpret_cast<struct sockaddr *>(&addr), &len,
                                0);
  return addr.nl_pid;
}

long uk_nl_send(struct uk_nlsock *sock, const void *data, unsigned long len) {
  struct sockaddr_nl to;
  memset(&to, 0, sizeof(to));
  to.nl_family = AF_NETLINK;
  struct iovec iov = {const_cast<void __user *>(data), len};
  struct msghdr msg;
  memset(&msg, 0, sizeof(msg));
  msg.msg_name = &to;
  msg.msg_namelen = sizeof(to);
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;

  const int err = len ? user_memory_add(data, len) : 0;
  if (err) return err;
  const long result = sock_sendmsg(socket_of(sock), &msg, len);
  if (len) user_memory_del(data);
  return result;
}

long uk_nl_recv(struct uk_nlsock *sock, void *data, unsigned long size, unsigned wait_ms) {
  struct sock *sk = socket_of(sock)->sk;
  struct kvec vec = {data, size};
  struct msghdr msg;
  memset(&msg, 0, sizeof(msg));
  sk->sk_rcvtimeo = msecs_to_jiffies(wait_ms);
  const int result =
      kernel_recvmsg(socket_of(sock), &msg, &vec, 1, size, wait_ms ? 0 : MSG_DONTWAIT);
  // Tells an empty datagram from a shutdown.
  if (result == 0 && __atomic_load_n(&sk->sk_shutdown, __ATOMIC_ACQUIRE) & RCV_SHUTDOWN)
    return -ESHUTDOWN;
  return result;
}

long uk_nl_take(struct uk_nlsock *sock, struct uk_nl_lent *lent, unsigned long room,
                unsigned wait_ms) {
  struct sock *sk = socket_of(sock)->sk;
  sk->sk_rcvtimeo = msecs_to_jiffies(wait_ms);
  int err = 0;
  struct sk_buff *skb = skb_recv_datagram(sk, 0, wait_ms ? 0 : MSG_DONTWAIT, &err);
  if (!skb) {
    ukern::netlink_rcv_wake(sk);
    return err ? err : -ESHUTDOWN;
  }
  unsigned long count = 0;
  // An error raised meanwhile is reported by the next call.
  for (; skb; skb = count < room ? skb_dequeue(&sk->sk_receive_queue) : nullptr)
    lent[count++] = {.data = skb->data, .len = skb->len, .buffer = skb};
  return static_cast<long>(count);
}

void uk_nl_give_back(struct uk_nlsock *sock, const struct uk_nl_lent *lent, unsigned long count) {
  struct sock *sk = socket_of(sock)->sk;
  for (unsigned long i = 0; i < count; i++)
    skb_free_datagram(sk, static_cast<struct sk_buff *>(lent[i].buffer));
  if (count) ukern::netlink_rcv_wake(sk);
}

void uk_nl_shutdown(struct uk_nlsock *sock) {
  struct sock *sk = socket_of(sock)->sk;
  __atomic_store_n(&sk->sk_shutdown, RCV_SHUTDOWN, __ATOMIC_RELEASE);
  wake_up_interruptible_all(&socket_of(sock)->wait);
}

void uk_nl_close(struct uk_nlsock *sock) {
  sock_release(socket_of(sock));
}

int uk_setsockopt(int pf, int option, void *value, unsigned len) {
  if (static_cast<int>(len) < 0) return -EINVAL;
  struct sock *sk = option_sock(pf);
  if (!sk) return -ENOMEM;
  const int result = nf_setsockopt(sk, pf, option, static_cast<char __user *>(value), len);
  sock_put(sk);
  return result;
}

int uk_getsockopt(int pf, int option, void *value, int *len) {
  struct sock *sk = option_sock(pf);
  if (!sk) return -ENOMEM;
  const int result = nf_getsockopt(sk, pf, option, static_cast<char __user *>(value), len);
  sock_put(sk);
  return result;
}

}  // extern "C"
