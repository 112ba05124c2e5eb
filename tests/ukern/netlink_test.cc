// SPDX-License-Identifier: GPL-2.0
// Netlink between the kernel and a process: ports, delivery, credentials, limits and time-outs.
#include "tests/ukern/netlink_peer.h"

#include <linux/capability.h>
#include <linux/completion.h>
#include <linux/jiffies.h>
#include <linux/kthread.h>
#include <linux/sched.h>

#include "tests/harness/case.h"

namespace {

struct Received {
  int calls;
  int len;  // as the call-back was told
  int err;  // of the receive in it
  char data[64];
  unsigned size;
  struct netlink_skb_parms parms;
  int task;  // whose context it ran in
} received;

void input(struct sock *sk, int len) {
  received.calls++;
  received.len = len;
  received.task = current->pid;
  int err = 0;
  struct sk_buff *skb = skb_recv_datagram(sk, 0, 0, &err);
  received.err = err;
  if (!skb) return;
  received.size = skb->len;
  received.parms = NETLINK_CB(skb);
  memcpy(received.data, skb->data,
         skb->len < sizeof(received.data) ? skb->len : sizeof(received.data));
  kfree_skb(skb);
}

struct sock *open_kernel_socket() {
  memset(&received, 0, sizeof(received));
  struct sock *sk = netlink_kernel_create(PEER_UNIT, 0, input, THIS_MODULE);
  if (sk) sk->sk_sndtimeo = 50;
  return sk;
}

// Fills the queue of `port` until a send would have to wait; the number of messages that went in.
int fill_queue(struct sock *sk, struct socket *sock) {
  int count = 0;
  while (atomic_read(&sock->sk->sk_rmem_alloc) <= sock->sk->sk_rcvbuf) {
    if (kernel_send(sk, peer_port(sock), 100, 1) < 0) break;
    count++;
  }
  return count;
}

}  // namespace

CASE(netlink, kernel_socket_takes_the_unit) {
  EXPECT_TRUE(netlink_kernel_create(-1, 0, input, THIS_MODULE) == NULL);
  EXPECT_TRUE(netlink_kernel_create(MAX_LINKS, 0, input, THIS_MODULE) == NULL);
  struct sock *sk = open_kernel_socket();
  REQUIRE_TRUE(sk);
  EXPECT_TRUE(netlink_kernel_create(PEER_UNIT, 0, input, THIS_MODULE) == NULL);
  EXPECT_TRUE(sk->sk_socket != NULL);
  EXPECT_TRUE(sk->sk_socket->sk == sk);
  sock_release(sk->sk_socket);
  sk = open_kernel_socket();
  REQUIRE_TRUE(sk);
  sock_release(sk->sk_socket);
}

CASE(netlink, create_refuses) {
  struct socket *sock;
  EXPECT_EQ(sock_create_kern(PF_NETLINK, SOCK_STREAM, PEER_UNIT, &sock), -ESOCKTNOSUPPORT);
  EXPECT_EQ(sock_create_kern(PF_NETLINK, SOCK_RAW, MAX_LINKS, &sock), -EPROTONOSUPPORT);
  EXPECT_EQ(sock_create_kern(PF_NETLINK, -1, PEER_UNIT, &sock), -EINVAL);
  EXPECT_EQ(sock_create_kern(NPROTO, SOCK_RAW, 0, &sock), -EAFNOSUPPORT);
}

CASE(netlink, ports) {
  struct socket *a = peer_open(4711);
  REQUIRE_TRUE(a);
  EXPECT_EQ(peer_port(a), 4711u);
  EXPECT_TRUE(peer_open(4711) == NULL);
  EXPECT_EQ(peer_bind(a, 4711), 0);
  EXPECT_EQ(peer_bind(a, 4712), -EINVAL);

  struct socket *b = peer_open(0);
  REQUIRE_TRUE(b);
  EXPECT_EQ(peer_port(b), (__u32)current->tgid);
  struct socket *c = peer_open(0);
  REQUIRE_TRUE(c);
  EXPECT_LT((int)peer_port(c), -4096);
  sock_release(c);
  sock_release(b);
  sock_release(a);
  a = peer_open(4711);
  EXPECT_TRUE(a != NULL);
  if (a) sock_release(a);
}

CASE(netlink, input_runs_in_the_sender) {
  struct sock *sk = open_kernel_socket();
  REQUIRE_TRUE(sk);
  struct socket *peer = peer_open(4711);
  REQUIRE_TRUE(peer);
  EXPECT_EQ(peer_send(peer, "hello", 5), 5);
  EXPECT_EQ(received.calls, 1);
  EXPECT_EQ(received.len, 5);
  EXPECT_EQ(received.err, 0);
  EXPECT_EQ(received.size, 5u);
  EXPECT_EQ(memcmp(received.data, "hello", 5), 0);
  EXPECT_EQ(received.task, current->pid);
  EXPECT_EQ(atomic_read(&sk->sk_rmem_alloc), 0);
  EXPECT_EQ(peer_send(peer, "", 0), 0);
  EXPECT_EQ(received.calls, 2);
  EXPECT_EQ(received.size, 0u);
  sock_release(peer);
  sock_release(sk->sk_socket);
}

CASE(netlink, credentials_are_the_senders) {
  struct sock *sk = open_kernel_socket();
  REQUIRE_TRUE(sk);
  struct socket *peer = peer_open(4711);
  REQUIRE_TRUE(peer);
  const kernel_cap_t caps = current->cap_effective;
  current->uid = 11;
  current->gid = 12;
  current->cap_effective = 0x1234;
  EXPECT_EQ(peer_send(peer, "x", 1), 1);
  current->uid = 0;
  current->gid = 0;
  current->cap_effective = caps;
  EXPECT_EQ(received.parms.pid, 4711u);
  EXPECT_EQ(received.parms.dst_pid, 0u);
  EXPECT_EQ(received.parms.dst_group, 0u);
  EXPECT_EQ(received.parms.creds.pid, (__u32)current->tgid);
  EXPECT_EQ(received.parms.creds.uid, 11u);
  EXPECT_EQ(received.parms.creds.gid, 12u);
  EXPECT_EQ(received.parms.eff_cap, (kernel_cap_t)0x1234);
  sock_release(peer);
  sock_release(sk->sk_socket);
}

CASE(netlink, send_needs_a_kernel_socket) {
  struct socket *peer = peer_open(4711);
  REQUIRE_TRUE(peer);
  EXPECT_EQ(peer_send(peer, "x", 1), -ECONNREFUSED);
  sock_release(peer);
}

CASE(netlink, send_is_limited) {
  struct sock *sk = open_kernel_socket();
  REQUIRE_TRUE(sk);
  struct socket *peer = peer_open(4711);
  REQUIRE_TRUE(peer);
  static char data[128];
  peer->sk->sk_sndbuf = sizeof(data) + 31;
  EXPECT_EQ(peer_send(peer, data, sizeof(data)), -EMSGSIZE);
  peer->sk->sk_sndbuf = sizeof(data) + 32;
  EXPECT_EQ(peer_send(peer, data, sizeof(data)), (int)sizeof(data));
  sock_release(peer);
  sock_release(sk->sk_socket);
}

CASE(netlink, kernel_sends_in_order) {
  struct sock *sk = open_kernel_socket();
  REQUIRE_TRUE(sk);
  struct socket *peer = peer_open(4711);
  REQUIRE_TRUE(peer);
  char data[64];
  EXPECT_EQ(peer_recv(peer, data, sizeof(data), MSG_DONTWAIT), -EAGAIN);
  for (unsigned i = 1; i <= 3; i++) {
    struct sk_buff *skb = kernel_message(10 + i, i);
    REQUIRE_TRUE(skb);
    EXPECT_EQ(netlink_unicast(sk, skb, 4711, 0), (int)(10 + i));
  }
  EXPECT_EQ(peer_recv(peer, data, sizeof(data), MSG_PEEK), 11);
  for (int i = 1; i <= 3; i++) {
    EXPECT_EQ(peer_recv(peer, data, sizeof(data), 0), 10 + i);
    EXPECT_EQ(data[0], i);
  }
  EXPECT_EQ(atomic_read(&peer->sk->sk_rmem_alloc), 0);
  sock_release(peer);
  sock_release(sk->sk_socket);
}

CASE(netlink, datagram_is_cut_to_the_buffer) {
  struct sock *sk = open_kernel_socket();
  REQUIRE_TRUE(sk);
  struct socket *peer = peer_open(4711);
  REQUIRE_TRUE(peer);
  EXPECT_EQ(kernel_send(sk, 4711, 100, 0), 100);
  EXPECT_EQ(kernel_send(sk, 4711, 20, 0), 20);
  char data[64];
  EXPECT_EQ(peer_recv(peer, data, sizeof(data), 0), 64);
  EXPECT_EQ(peer_recv(peer, data, sizeof(data), 0), 20);
  sock_release(peer);
  sock_release(sk->sk_socket);
}

CASE(netlink, absent_port_refuses_and_consumes) {
  struct sock *sk = open_kernel_socket();
  REQUIRE_TRUE(sk);
  struct sk_buff *skb = kernel_message(10, 0);
  REQUIRE_TRUE(skb);
  skb_get(skb);
  EXPECT_EQ(netlink_unicast(sk, skb, 4711, 0), -ECONNREFUSED);
  EXPECT_FALSE(skb_shared(skb));
  kfree_skb(skb);
  struct socket *peer = peer_open(4711);
  REQUIRE_TRUE(peer);
  EXPECT_EQ(kernel_send(sk, 4711, 10, 0), 10);
  sock_release(peer);
  EXPECT_EQ(kernel_send(sk, 4711, 10, 0), -ECONNREFUSED);
  sock_release(sk->sk_socket);
}

CASE(netlink, connected_elsewhere_refuses) {
  struct sock *sk = open_kernel_socket();
  REQUIRE_TRUE(sk);
  struct socket *peer = peer_open(4711);
  REQUIRE_TRUE(peer);
  struct sockaddr_nl to = peer_address(5);
  REQUIRE_EQ(peer->ops->connect(peer, (struct sockaddr *)&to, sizeof(to), 0), 0);
  EXPECT_EQ(kernel_send(sk, 4711, 10, 0), -ECONNREFUSED);
  to = peer_address(0);
  REQUIRE_EQ(peer->ops->connect(peer, (struct sockaddr *)&to, sizeof(to), 0), 0);
  EXPECT_EQ(kernel_send(sk, 4711, 10, 0), 10);
  sock_release(peer);
  sock_release(sk->sk_socket);
}

CASE(netlink, mostly_empty_buffer_counts_as_what_it_carries) {
  struct sock *sk = open_kernel_socket();
  REQUIRE_TRUE(sk);
  struct socket *peer = peer_open(4711);
  REQUIRE_TRUE(peer);
  struct sk_buff *skb = alloc_skb(4112, GFP_KERNEL);
  REQUIRE_TRUE(skb);
  memset(skb_put(skb, 16), 7, 16);
  EXPECT_EQ(netlink_unicast(sk, skb, 4711, 0), 16);
  EXPECT_LT(atomic_read(&peer->sk->sk_rmem_alloc), 4112);
  char data[64];
  EXPECT_EQ(peer_recv(peer, data, sizeof(data), 0), 16);
  EXPECT_EQ(data[15], 7);
  sock_release(peer);
  sock_release(sk->sk_socket);
}

CASE(netlink, full_queue_refuses_without_waiting) {
  struct sock *sk = open_kernel_socket();
  REQUIRE_TRUE(sk);
  struct socket *peer = peer_open(4711);
  REQUIRE_TRUE(peer);
  peer->sk->sk_rcvbuf = 4096;
  const int queued = fill_queue(sk, peer);
  EXPECT_GT(queued, 1);
  EXPECT_EQ(kernel_send(sk, 4711, 100, 1), -EAGAIN);

  // The loss is told once, then the rest comes.
  char data[128];
  EXPECT_EQ(peer_recv(peer, data, sizeof(data), MSG_DONTWAIT), -ENOBUFS);
  // Overrun lasts until the queue is empty.
  for (int i = 0; i < queued; i++) {
    EXPECT_EQ(kernel_send(sk, 4711, 100, 1), -EAGAIN);
    EXPECT_EQ(peer_recv(peer, data, sizeof(data), MSG_DONTWAIT), 100);
  }
  EXPECT_EQ(kernel_send(sk, 4711, 100, 1), 100);
  sock_release(peer);
  sock_release(sk->sk_socket);
}

namespace {

// A sender that has to wait, in a thread of its own.
struct Sender {
  struct sock *sk;
  int result;
  struct completion started;
  struct completion done;
} sender;

int send_one(void *) {
  complete(&sender.started);
  sender.result = kernel_send(sender.sk, 4711, 100, 0);
  complete(&sender.done);
  while (!kthread_should_stop()) msleep(1);
  return 0;
}

struct task_struct *start_sender(struct sock *sk, long timeout = 20 * HZ) {
  sk->sk_sndtimeo = timeout;
  sender.sk = sk;
  sender.result = 1;
  init_completion(&sender.started);
  init_completion(&sender.done);
  struct task_struct *task = kthread_run(send_one, NULL, "netlink_sender");
  if (IS_ERR(task)) return NULL;
  wait_for_completion(&sender.started);
  msleep(20);
  return task;
}

}  // namespace

CASE(netlink, reader_wakes_the_sender) {
  struct sock *sk = open_kernel_socket();
  REQUIRE_TRUE(sk);
  struct socket *peer = peer_open(4711);
  REQUIRE_TRUE(peer);
  peer->sk->sk_rcvbuf = 4096;
  const int queued = fill_queue(sk, peer);
  struct task_struct *task = start_sender(sk);
  REQUIRE_TRUE(task);
  EXPECT_EQ(sender.result, 1);
  char data[128];
  for (int i = 0; i < queued; i++) EXPECT_EQ(peer_recv(peer, data, sizeof(data), 0), 100);
  EXPECT_TRUE(wait_for_completion_timeout(&sender.done, 10 * HZ) != 0);
  EXPECT_EQ(sender.result, 100);
  EXPECT_EQ(peer_recv(peer, data, sizeof(data), 0), 100);
  kthread_stop(task);
  sock_release(peer);
  sock_release(sk->sk_socket);
}

CASE(netlink, slow_reader_keeps_the_sender_waiting_beyond_its_time) {
  static char data[8192];
  struct sock *sk = open_kernel_socket();
  REQUIRE_TRUE(sk);
  struct socket *peer = peer_open(4711);
  REQUIRE_TRUE(peer);
  peer->sk->sk_rcvbuf = 4096;
  // What is read first makes no room: the queue is full as long as the last message is in it.
  for (int i = 0; i < 3; i++) EXPECT_EQ(kernel_send(sk, 4711, 100, 1), 100);
  EXPECT_EQ(kernel_send(sk, 4711, 8000, 1), 8000);
  struct task_struct *task = start_sender(sk, 1500);
  REQUIRE_TRUE(task);
  for (int i = 0; i < 3; i++) {
    msleep(600);
    EXPECT_EQ(peer_recv(peer, data, sizeof(data), 0), 100);
  }
  EXPECT_EQ(sender.result, 1);
  EXPECT_EQ(peer_recv(peer, data, sizeof(data), 0), 8000);
  EXPECT_TRUE(wait_for_completion_timeout(&sender.done, 10 * HZ) != 0);
  EXPECT_EQ(sender.result, 100);
  kthread_stop(task);
  sock_release(peer);
  sock_release(sk->sk_socket);
}

CASE(netlink, close_lets_the_sender_go) {
  struct sock *sk = open_kernel_socket();
  REQUIRE_TRUE(sk);
  struct socket *peer = peer_open(4711);
  REQUIRE_TRUE(peer);
  peer->sk->sk_rcvbuf = 4096;
  fill_queue(sk, peer);
  struct task_struct *task = start_sender(sk);
  REQUIRE_TRUE(task);
  sock_release(peer);
  EXPECT_TRUE(wait_for_completion_timeout(&sender.done, 10 * HZ) != 0);
  EXPECT_EQ(sender.result, -ECONNREFUSED);
  kthread_stop(task);
  sock_release(sk->sk_socket);
}

CASE(netlink, receive_waits_for_a_message) {
  struct sock *sk = open_kernel_socket();
  REQUIRE_TRUE(sk);
  struct socket *peer = peer_open(4711);
  REQUIRE_TRUE(peer);
  char data[128];
  peer->sk->sk_rcvtimeo = 30;
  const unsigned long start = jiffies;
  EXPECT_EQ(peer_recv(peer, data, sizeof(data), 0), -EAGAIN);
  EXPECT_TRUE(time_after_eq(jiffies, start + 30));

  peer->sk->sk_rcvtimeo = 20 * HZ;
  struct task_struct *task = start_sender(sk);
  REQUIRE_TRUE(task);
  EXPECT_EQ(peer_recv(peer, data, sizeof(data), 0), 100);
  kthread_stop(task);
  sock_release(peer);
  sock_release(sk->sk_socket);
}

CASE(netlink, release_drops_what_waits) {
  struct sock *sk = open_kernel_socket();
  REQUIRE_TRUE(sk);
  struct socket *peer = peer_open(4711);
  REQUIRE_TRUE(peer);
  for (int i = 0; i < 5; i++) EXPECT_EQ(kernel_send(sk, 4711, 100, 0), 100);
  sock_release(peer);
  sock_release(sk->sk_socket);
}
