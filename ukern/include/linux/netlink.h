/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Netlink: datagrams between the kernel and processes, addressed by protocol unit and port. Unicast
 * only: groups have no members.
 */
#ifndef UKERN_LINUX_NETLINK_H
#define UKERN_LINUX_NETLINK_H

#include <linux/types.h>
#include <linux/capability.h>
#include <linux/socket.h>
#include <linux/skbuff.h>
#include <linux/string.h>

struct module;
struct sock;

#define MAX_LINKS 32

struct sockaddr_nl {
  sa_family_t nl_family; /* AF_NETLINK */
  unsigned short nl_pad; /* zero */
  __u32 nl_pid;          /* port; 0: the kernel */
  __u32 nl_groups;
};

struct nlmsghdr {
  __u32 nlmsg_len; /* including this header */
  __u16 nlmsg_type;
  __u16 nlmsg_flags;
  __u32 nlmsg_seq;
  __u32 nlmsg_pid;
};

#define NLM_F_REQUEST 1
#define NLM_F_MULTI 2
#define NLM_F_ACK 4
#define NLM_F_ECHO 8

#define NLMSG_ALIGNTO 4
#define NLMSG_ALIGN(len) (((len) + NLMSG_ALIGNTO - 1) & ~(NLMSG_ALIGNTO - 1))
#define NLMSG_HDRLEN ((int)NLMSG_ALIGN(sizeof(struct nlmsghdr)))
#define NLMSG_LENGTH(len) ((len) + NLMSG_ALIGN(NLMSG_HDRLEN))
#define NLMSG_SPACE(len) NLMSG_ALIGN(NLMSG_LENGTH(len))
#define NLMSG_DATA(nlh) ((void *)(((char *)(nlh)) + NLMSG_LENGTH(0)))
#define NLMSG_OK(nlh, len)                                                                 \
  ((len) >= (int)sizeof(struct nlmsghdr) && (nlh)->nlmsg_len >= sizeof(struct nlmsghdr) && \
   (nlh)->nlmsg_len <= (__u32)(len))
#define NLMSG_PAYLOAD(nlh, len) ((nlh)->nlmsg_len - NLMSG_SPACE((len)))

#define NLMSG_MIN_TYPE 0x10 /* below: reserved for control messages */

enum {
  NETLINK_UNCONNECTED = 0,
  NETLINK_CONNECTED,
};

/* In skb->cb of every netlink buffer from a process. */
struct netlink_skb_parms {
  struct ucred creds; /* of the sender at the time of sending */
  __u32 pid;          /* the sender's port */
  __u32 dst_pid;
  __u32 dst_group;
  kernel_cap_t eff_cap; /* the sender's effective capabilities */
};

#define NETLINK_CB(skb) (*(struct netlink_skb_parms *)&((skb)->cb))
#define NETLINK_CREDS(skb) (&NETLINK_CB((skb)).creds)

#ifdef __cplusplus
extern "C" {
#endif

/*
 * The kernel's socket on protocol unit `unit`, at port 0; null when the unit is out of range or
 * taken, or without memory. `input` runs in the context of each sender, after its buffer has been
 * queued here; several may run at once. Released with sock_release(sk->sk_socket). May sleep.
 */
struct sock *netlink_kernel_create(int unit, unsigned int groups,
                                   void (*input)(struct sock *sk, int len), struct module *module);

/*
 * Sends `skb` to port `pid` of the unit of `ssk` and consumes it, whatever the result. Returns the
 * length sent, or -ECONNREFUSED when there is no such port. While the receiver's queue is above its
 * limit, or has not been emptied after an overrun, it waits up to the send time-out of `ssk` (not
 * at all with `nonblock`). Then the result is -EAGAIN, and if `ssk` is the kernel's, the receiver
 * is overrun (its next receive returns -ENOBUFS). -EINTR or -ERESTARTSYS after a signal. May sleep
 * unless `nonblock`.
 */
int netlink_unicast(struct sock *ssk, struct sk_buff *skb, __u32 pid, int nonblock);

#ifdef __cplusplus
}
#endif
#endif
