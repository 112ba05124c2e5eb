/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What the files of the network side share. Its start and end are declared in ukern/sched/boot.h.
 */
#ifndef UKERN_NET_NET_H
#define UKERN_NET_NET_H

struct sock;
struct socket;

namespace ukern {

int skb_init();
void skb_exit();

/* The create of PF_NETLINK: gives the socket its operations and its struct sock. 0 or a negative
 * error. */
int netlink_create(struct socket *sock, int protocol);
/* Its receiver has taken something, or has found nothing: those who wait for room look again. Any
 * context. */
void netlink_rcv_wake(struct sock *sk);

}  // namespace ukern

#endif
