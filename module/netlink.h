/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The netlink channel: the module's socket, messages to the registered daemon, and the daemon's
 * messages. `daemon_pid` is one word that is accessed without a lock. Sending sleeps while the
 * daemon's queue is full, at most for the send time-out; then the message is lost and the daemon
 * gets a signal.
 */
#ifndef TARN_NETLINK_H
#define TARN_NETLINK_H

#include "kernel.h"
#include "ox_msg.h"

/* How long a send waits for room in the daemon's queue, in jiffies. */
#define TARN_SEND_TIMEOUT 1000

extern struct sock *tarn_nl_sock;
/* The port and process id of the daemon; 0: none. */
extern ox_u32_t daemon_pid;

/*
 * Blocks all signals but those that end the process while it sends to a daemon. A signal ends the
 * wait for room in the daemon's queue and so loses the record of a change that was made; SIGCHLD or
 * a timer must not do that.
 */
class tarn_hold_signals {
 public:
  tarn_hold_signals();
  ~tarn_hold_signals();
  tarn_hold_signals(const tarn_hold_signals &) = delete;
  tarn_hold_signals &operator=(const tarn_hold_signals &) = delete;

 private:
  sigset_t before_;
};

/* Returns 0 or -EIO. */
[[nodiscard]] int tarn_init_netlink(void);
void tarn_release_netlink(void);

/* Sends a copy of `len` bytes to the daemon. Returns 0, also if there is no daemon or it has ended
 * and was unregistered; -ENOMEM; -EMSGSIZE if the message was lost. */
int tarn_send_netlink(const void *data, int len, int type, int flags, ox_u32_t seq);
/* The same for a page of a write, in a buffer with room for a netlink header before it. Without a
 * daemon *page stays; otherwise it is consumed and set to null. The caller holds signals. */
int tarn_send_page(struct sk_buff **page, int len, int type, int flags, ox_u32_t seq);
/* Tells the daemon that the rule was stopped. */
int tarn_send_stop_rule(const uuid_t uuid);

/* The socket's input callback: receives one message and handles it. */
void tarn_receive_nl_message(struct sock *sk, int len);

/* msg.cc: handles a complete message of a privileged sender. */
void tarn_process_message(struct sk_buff *skb, struct nlmsghdr *header);

#endif
