/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Sockets for the system-call layer. The only protocol family is PF_NETLINK.
 *
 * The creator of a struct socket owns it until sock_release. It has no file. Its struct sock
 * (net/sock.h) is reference counted on its own and may outlive it.
 */
#ifndef UKERN_LINUX_NET_H
#define UKERN_LINUX_NET_H

#include <linux/types.h>
#include <linux/compiler.h>
#include <linux/wait.h>

struct kiocb;
struct kvec;
struct module;
struct msghdr;
struct sock;
struct sockaddr;

#define NPROTO 32

typedef enum {
  SS_FREE = 0,
  SS_UNCONNECTED,
  SS_CONNECTING,
  SS_CONNECTED,
  SS_DISCONNECTING,
} socket_state;

enum sock_type {
  SOCK_STREAM = 1,
  SOCK_DGRAM = 2,
  SOCK_RAW = 3,
  SOCK_RDM = 4,
  SOCK_SEQPACKET = 5,
};

struct socket {
  socket_state state;
  unsigned long flags;
  const struct proto_ops *ops;
  struct sock *sk;
  wait_queue_head_t wait; /* receivers; sk->sk_sleep points here until release */
  short type;
};

/* The operations of a protocol family. `iocb` is ignored and may be null. */
struct proto_ops {
  int family;
  struct module *owner;
  int (*release)(struct socket *sock);
  int (*bind)(struct socket *sock, struct sockaddr *myaddr, int sockaddr_len);
  int (*connect)(struct socket *sock, struct sockaddr *vaddr, int sockaddr_len, int flags);
  int (*getname)(struct socket *sock, struct sockaddr *addr, int *sockaddr_len, int peer);
  int (*sendmsg)(struct kiocb *iocb, struct socket *sock, struct msghdr *m, size_t total_len);
  int (*recvmsg)(struct kiocb *iocb, struct socket *sock, struct msghdr *m, size_t total_len,
                 int flags);
};

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Creates a socket for the kernel itself. 0 with *res set; -EAFNOSUPPORT for a family other than
 * PF_NETLINK, -EINVAL for a type out of range, -ESOCKTNOSUPPORT and -EPROTONOSUPPORT from the
 * family, -ENFILE or -ENOMEM without memory. May sleep.
 */
int sock_create_kern(int family, int type, int proto, struct socket **res);
/* Creates a socket without a protocol: ops and sk are null. 0 or -ENOMEM. May sleep. */
int sock_create_lite(int family, int type, int proto, struct socket **res);
/* Closes and frees: the protocol's release, then the socket itself. May sleep. */
void sock_release(struct socket *sock);

/* The protocol's sendmsg and recvmsg; the iovec is in user memory unless get_fs() is KERNEL_DS. */
int sock_sendmsg(struct socket *sock, struct msghdr *msg, size_t len);
int sock_recvmsg(struct socket *sock, struct msghdr *msg, size_t size, int flags);
/* The same with kernel buffers. They set msg_iov from `vec`, whose entries are advanced. */
int kernel_sendmsg(struct socket *sock, struct msghdr *msg, struct kvec *vec, size_t num,
                   size_t len);
int kernel_recvmsg(struct socket *sock, struct msghdr *msg, struct kvec *vec, size_t num,
                   size_t len, int flags);

#ifdef __cplusplus
}
#endif
#endif
