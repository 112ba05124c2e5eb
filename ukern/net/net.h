/* SPDX-License-Identifier: GPL-2.0 */
/* Shared by the files of the network side. Its start and end are declared in ukern/sched/boot.h. */
#ifndef UKERN_NET_NET_H
#define UKERN_NET_NET_H

struct sock;
struct socket;

namespace ukern {

int skb_init();
void skb_exit();

/* Creates a PF_NETLINK socket: sets its operations and allocates its struct sock. 0 or a negative
 * error. */
int netlink_create(struct socket *sock, int protocol);
/* Called when the receiver has dequeued something or found nothing: wakes senders that wait for
 * room. Any context. */
void netlink_rcv_wake(struct sock *sk);

}  // namespace ukern

#endif
