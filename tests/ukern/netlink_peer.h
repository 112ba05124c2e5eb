/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A process's end of a netlink socket, and the kernel's, for cases.
 */
#ifndef TESTS_UKERN_NETLINK_PEER_H
#define TESTS_UKERN_NETLINK_PEER_H

#include <linux/errno.h>
#include <linux/module.h>
#include <linux/net.h>
#include <linux/netlink.h>
#include <linux/skbuff.h>
#include <linux/socket.h>
#include <linux/string.h>
#include <linux/uio.h>
#include <net/sock.h>

/* A unit that nothing else uses. */
#define PEER_UNIT 30

static inline struct sockaddr_nl peer_address(__u32 port) {
  struct sockaddr_nl addr;
  memset(&addr, 0, sizeof(addr));
  addr.nl_family = AF_NETLINK;
  addr.nl_pid = port;
  return addr;
}

static inline int peer_bind(struct socket *sock, __u32 port) {
  struct sockaddr_nl addr = peer_address(port);
  return sock->ops->bind(sock, (struct sockaddr *)&addr, sizeof(addr));
}

/* A process's socket, bound to `port`; null when that fails. */
static inline struct socket *peer_open(__u32 port) {
  struct socket *sock;
  if (sock_create_kern(PF_NETLINK, SOCK_RAW, PEER_UNIT, &sock)) return NULL;
  if (peer_bind(sock, port)) {
    sock_release(sock);
    return NULL;
  }
  return sock;
}

static inline __u32 peer_port(struct socket *sock) {
  struct sockaddr_nl addr;
  int len;
  sock->ops->getname(sock, (struct sockaddr *)&addr, &len, 0);
  return addr.nl_pid;
}

/* Sends to the kernel. */
static inline int peer_send(struct socket *sock, const void *data, size_t len) {
  struct sockaddr_nl to = peer_address(0);
  struct kvec vec = {(void *)data, len};
  struct msghdr msg;
  memset(&msg, 0, sizeof(msg));
  msg.msg_name = &to;
  msg.msg_namelen = sizeof(to);
  return kernel_sendmsg(sock, &msg, &vec, 1, len);
}

static inline int peer_recv(struct socket *sock, void *data, size_t len, int flags) {
  struct kvec vec = {data, len};
  struct msghdr msg;
  memset(&msg, 0, sizeof(msg));
  return kernel_recvmsg(sock, &msg, &vec, 1, len, flags);
}

/* A message for a process, of `len` bytes that all are `fill`; null without memory. */
static inline struct sk_buff *kernel_message(unsigned len, unsigned char fill) {
  struct sk_buff *skb = alloc_skb(len, GFP_KERNEL);
  if (skb) memset(skb_put(skb, len), fill, len);
  return skb;
}

static inline int kernel_send(struct sock *sk, __u32 port, unsigned len, int nonblock) {
  struct sk_buff *skb = kernel_message(len, 0x5a);
  return skb ? netlink_unicast(sk, skb, port, nonblock) : -ENOMEM;
}

#endif
