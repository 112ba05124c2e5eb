/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Socket calls for the program that hosts the kernel: netlink sockets and socket options. Every
 * call acts as the current task (uk_task_enter), whose credentials accompany its messages.
 */
#ifndef UKERN_DOOR_UK_NET_H
#define UKERN_DOOR_UK_NET_H

#ifdef __cplusplus
extern "C" {
#endif

struct uk_nlsock;
/*
 * A netlink socket on protocol unit `unit`, bound to `port` (0: one is chosen). `rcvbuf`: bytes
 * that may be queued before senders block, as for SO_RCVBUFFORCE (doubled, because the kernel's
 * overhead per message counts too); 0: the kernel's default. -EADDRINUSE: the port is taken.
 */
int uk_nl_open(int unit, unsigned port, unsigned long rcvbuf, struct uk_nlsock **out);
/* The socket's port. */
unsigned uk_nl_port(struct uk_nlsock *sock);
/* Sends one datagram to the kernel (port 0). Returns its length or -errno. */
long uk_nl_send(struct uk_nlsock *sock, const void *data, unsigned long len);
/*
 * Takes the next datagram off the queue. Returns its length (cut to `size`), -EAGAIN when none came
 * within `wait_ms`, -ENOBUFS once after messages were lost, -ESHUTDOWN after uk_nl_shutdown when
 * the queue is empty, -EINTR after a signal. One receiver at a time.
 */
long uk_nl_recv(struct uk_nlsock *sock, void *data, unsigned long size, unsigned wait_ms);

/* A datagram lent to the receiver without a copy. */
struct uk_nl_lent {
  const void *data;
  unsigned long len;
  void *buffer; /* the kernel's socket buffer */
};
/*
 * Takes up to `room` (at least 1) datagrams off the queue without copying them. Returns their
 * number, or the errors of uk_nl_recv. Waits for the first only. Lent datagrams stay valid, and
 * count against the receive buffer, until uk_nl_give_back.
 */
long uk_nl_take(struct uk_nlsock *sock, struct uk_nl_lent *lent, unsigned long room,
                unsigned wait_ms);
/* Returns `count` lent datagrams, in any order, from any thread. */
void uk_nl_give_back(struct uk_nlsock *sock, const struct uk_nl_lent *lent, unsigned long count);
/* Wakes the receiver; from now on an empty queue is -ESHUTDOWN. */
void uk_nl_shutdown(struct uk_nlsock *sock);
/* Unbinds and frees the socket and drops its queue. No receiver may be in a call, and no datagram
 * lent. */
void uk_nl_close(struct uk_nlsock *sock);

/*
 * setsockopt/getsockopt at level `pf` on a socket of that family. The buffer must be user memory of
 * the current task. Returns the registered handler's result; -ENOPROTOOPT (-92) when no handler has
 * the option, -EINTR after a signal, -ENOMEM when no socket could be created.
 */
int uk_setsockopt(int pf, int option, void *value, unsigned len);
int uk_getsockopt(int pf, int option, void *value, int *len);

#ifdef __cplusplus
}
#endif
#endif
