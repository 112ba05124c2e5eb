// SPDX-License-Identifier: GPL-2.0
// Sockets: creation, release, messages.

#include <asm/uaccess.h>
#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/module.h>
#include <linux/net.h>
#include <linux/slab.h>
#include <linux/socket.h>
#include <linux/string.h>
#include <linux/wait.h>

#include "ukern/net/net.h"
#include "ukern/sched/boot.h"

static_assert(sizeof(struct iovec) == sizeof(struct kvec) &&
                  offsetof(struct iovec, iov_len) == offsetof(struct kvec, iov_len),
              "a kvec is taken for an iovec under KERNEL_DS");

static constexpr int kSockTypes = 11;

static kmem_cache_t *sock_cache;

static struct socket *sock_alloc() {
  auto *sock = static_cast<struct socket *>(kmem_cache_alloc(sock_cache, GFP_KERNEL));
  if (!sock) return nullptr;
  memset(sock, 0, sizeof(*sock));
  init_waitqueue_head(&sock->wait);
  return sock;
}

extern "C" {

int ukern_net_init(void) {
  const int err = ukern::skb_init();
  if (err) return err;
  sock_cache = kmem_cache_create("sock_inode_cache", sizeof(struct socket), 0, 0, nullptr, nullptr);
  if (sock_cache) return 0;
  ukern::skb_exit();
  return -ENOMEM;
}

void ukern_net_exit(void) {
  kmem_cache_destroy(sock_cache);
  sock_cache = nullptr;
  ukern::skb_exit();
}

int sock_create_lite(int, int type, int, struct socket **res) {
  struct socket *sock = sock_alloc();
  *res = sock;
  if (!sock) return -ENOMEM;
  sock->type = type;
  return 0;
}

int sock_create_kern(int family, int type, int proto, struct socket **res) {
  if (family < 0 || family >= NPROTO) return -EAFNOSUPPORT;
  if (type < 0 || type >= kSockTypes) return -EINVAL;
  if (family != PF_NETLINK) return -EAFNOSUPPORT;

  struct socket *sock = sock_alloc();
  if (!sock) return -ENFILE;
  sock->type = type;
  const int err = ukern::netlink_create(sock, proto);
  if (err) {
    sock->ops = nullptr;
    sock_release(sock);
    return err;
  }
  *res = sock;
  return 0;
}

void sock_release(struct socket *sock) {
  if (sock->ops) {
    sock->ops->release(sock);
    sock->ops = nullptr;
  }
  kmem_cache_free(sock_cache, sock);
}

int sock_sendmsg(struct socket *sock, struct msghdr *msg, size_t len) {
  return sock->ops->sendmsg(nullptr, sock, msg, len);
}

int sock_recvmsg(struct socket *sock, struct msghdr *msg, size_t size, int flags) {
  return sock->ops->recvmsg(nullptr, sock, msg, size, flags);
}

int kernel_sendmsg(struct socket *sock, struct msghdr *msg, struct kvec *vec, size_t num,
                   size_t len) {
  const mm_segment_t old_fs = get_fs();
  set_fs(KERNEL_DS);
  msg->msg_iov = reinterpret_cast<struct iovec *>(vec);
  msg->msg_iovlen = num;
  const int result = sock_sendmsg(sock, msg, len);
  set_fs(old_fs);
  return result;
}

int kernel_recvmsg(struct socket *sock, struct msghdr *msg, struct kvec *vec, size_t num,
                   size_t len, int flags) {
  const mm_segment_t old_fs = get_fs();
  set_fs(KERNEL_DS);
  msg->msg_iov = reinterpret_cast<struct iovec *>(vec);
  msg->msg_iovlen = num;
  const int result = sock_recvmsg(sock, msg, len, flags);
  set_fs(old_fs);
  return result;
}

}  // extern "C"
