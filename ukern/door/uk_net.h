/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The user side of the kernel's sockets for the program that hosts it: netlink sockets and socket
 * options. Every call acts as the current task (uk_task_enter): its credentials travel with what it
 * sends.
 */
#ifndef UKERN_DOOR_UK_NET_H
#define UKERN_DOOR_UK_NET_H

#ifdef __cplusplus
extern "C" {
#endif

struct uk_nlsock;
/*
 * A netlink socket on protocol unit `unit`, bound to `port` (0: one is chosen). `rcvbuf`: bytes
 * that may wait in it before senders block, as SO_RCVBUFFORCE takes it (doubled, because what the
 * kernel adds to each message counts too); 0: the kernel's default. -EADDRINUSE: the port is taken.
 */
int uk_nl_open(int unit, unsigned port, unsigned long rcvbuf, struct uk_nlsock **out);
/* Its port. */
unsigned uk_nl_port(struct uk_nlsock *sock);
/* Sends one datagram to the kernel (port 0). Its length, or -errno. */
long uk_nl_send(struct uk_nlsock *sock, const void *data, unsigned long len);
/*
 * Takes the next datagram off the queue: its length (cut to `size`), -EAGAIN when none came within
 * `wait_ms`, -ENOBUFS once after messages for it were lost, -ESHUTDOWN after uk_nl_shutdown when
 * nothing is left, -EINTR after a signal. One receiver at a time.
 */
long uk_nl_recv(struct uk_nlsock *sock, void *data, unsigned long size, unsigned wait_ms);

/* A datagram that the receiver reads where the kernel has put it. */
struct uk_nl_lent {
  const void *data;
  unsigned long len;
  void *buffer; /* the kernel's */
};
/*
 * Takes up to `room` (at least 1) datagrams off the queue without copying them: how many, or what
 * uk_nl_recv returns when there is none. Waits for the first only. They are the caller's until it
 * gives them back, and count as waiting as long.
 */
long uk_nl_take(struct uk_nlsock *sock, struct uk_nl_lent *lent, unsigned long room,
                unsigned wait_ms);
/* Gives `count` of them back. Any order, and any thread. */
void uk_nl_give_back(struct uk_nlsock *sock, const struct uk_nl_lent *lent, unsigned long count);
/* Wakes the receiver for good. */
void uk_nl_shutdown(struct uk_nlsock *sock);
/* Unbinds and frees the socket; what waits in it is dropped. No receiver may be inside, and nothing
 * may be lent. */
void uk_nl_close(struct uk_nlsock *sock);

/*
 * setsockopt/getsockopt at level `pf` on a socket of that family. The buffer must lie in user
 * memory of the current task. What the registered handler returned; -ENOPROTOOPT (-92) when none
 * has the option, -EINTR after a signal, -ENOMEM when no socket could be made.
 */
int uk_setsockopt(int pf, int option, void *value, unsigned len);
int uk_getsockopt(int pf, int option, void *value, int *len);

#ifdef __cplusplus
}
#endif
#endif
