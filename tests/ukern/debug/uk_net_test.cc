// SPDX-License-Identifier: GPL-2.0
// The sockets as the host program sees them, and what the kernel reports about them.
#include "ukern/door/uk_net.h"

#include <asm/uaccess.h>
#include <linux/errno.h>
#include <linux/netfilter.h>
#include <linux/sched.h>
#include <linux/skbuff.h>

#include "tests/harness/case.h"
#include "tests/ukern/netlink_peer.h"
#include "tests/ukern/threads.h"
#include "ukern/door/uk_core.h"
#include "ukern/testing/uk_fault.h"

namespace {

int calls;
char got[64];
mm_segment_t limit_in_input;

void input(struct sock *sk, int) {
  int err = 0;
  struct sk_buff *skb = skb_recv_datagram(sk, 0, 0, &err);
  if (!skb) return;
  calls++;
  limit_in_input = get_fs();
  if (skb->len < sizeof(got)) memcpy(got, skb->data, skb->len);
  kfree_skb(skb);
}

struct sock *open_kernel_socket() {
  calls = 0;
  struct sock *sk = netlink_kernel_create(PEER_UNIT, 0, input, THIS_MODULE);
  if (sk) sk->sk_sndtimeo = 20;
  return sk;
}

}  // namespace

CASE(uk_net, message_to_the_kernel_and_back) {
  struct sock *sk = open_kernel_socket();
  REQUIRE_TRUE(sk);
  struct uk_nlsock *sock;
  REQUIRE_EQ(uk_nl_open(PEER_UNIT, 0, 0, &sock), 0);
  EXPECT_EQ(uk_nl_port(sock), (unsigned)current->tgid);
  EXPECT_EQ(uk_nl_send(sock, "hello", 5), 5);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(memcmp(got, "hello", 5), 0);
  // A process sent it: kernel memory is out of reach of the copies from user memory.
  EXPECT_TRUE(limit_in_input.seg == USER_DS.seg);

  char data[64];
  EXPECT_EQ(uk_nl_recv(sock, data, sizeof(data), 0), -EAGAIN);
  EXPECT_EQ(uk_nl_recv(sock, data, sizeof(data), 10), -EAGAIN);
  EXPECT_EQ(kernel_send(sk, uk_nl_port(sock), 30, 0), 30);
  EXPECT_EQ(uk_nl_recv(sock, data, sizeof(data), 1000), 30);
  EXPECT_EQ(data[29], 0x5a);
  uk_nl_close(sock);
  sock_release(sk->sk_socket);
}

CASE(uk_net, port_in_use) {
  struct uk_nlsock *a, *b;
  REQUIRE_EQ(uk_nl_open(PEER_UNIT, 4711, 0, &a), 0);
  EXPECT_EQ(uk_nl_port(a), 4711u);
  EXPECT_EQ(uk_nl_open(PEER_UNIT, 4711, 0, &b), -EADDRINUSE);
  uk_nl_close(a);
}

CASE(uk_net, receive_buffer_limits_the_queue) {
  struct sock *sk = open_kernel_socket();
  REQUIRE_TRUE(sk);
  struct uk_nlsock *sock;
  REQUIRE_EQ(uk_nl_open(PEER_UNIT, 4711, 2048, &sock), 0);
  int sent = 0;
  while (sent < 1000 && kernel_send(sk, 4711, 100, 0) == 100) sent++;
  EXPECT_GT(sent, 4);
  EXPECT_LT(sent, 40);
  char data[128];
  EXPECT_EQ(uk_nl_recv(sock, data, sizeof(data), 10), -ENOBUFS);
  for (int i = 0; i < sent; i++) EXPECT_EQ(uk_nl_recv(sock, data, sizeof(data), 10), 100);
  EXPECT_EQ(uk_nl_recv(sock, data, sizeof(data), 0), -EAGAIN);
  uk_nl_close(sock);
  sock_release(sk->sk_socket);
}

CASE(uk_net, lent_messages_are_where_the_kernel_has_put_them) {
  struct sock *sk = open_kernel_socket();
  REQUIRE_TRUE(sk);
  struct uk_nlsock *sock;
  REQUIRE_EQ(uk_nl_open(PEER_UNIT, 4711, 0, &sock), 0);
  struct uk_nl_lent lent[4];
  EXPECT_EQ(uk_nl_take(sock, lent, 4, 0), -EAGAIN);
  EXPECT_EQ(uk_nl_take(sock, lent, 4, 10), -EAGAIN);
  const unsigned sizes[] = {10, 4112, 30};
  const void *sent[3];
  for (int i = 0; i < 3; i++) {
    struct sk_buff *skb = kernel_message(sizes[i], (unsigned char)i);
    REQUIRE_TRUE(skb);
    sent[i] = skb->data;
    EXPECT_EQ(netlink_unicast(sk, skb, 4711, 0), (int)sizes[i]);
  }
  // No more than there is room for, and in their order.
  EXPECT_EQ(uk_nl_take(sock, lent, 2, 1000), 2);
  EXPECT_EQ(uk_nl_take(sock, lent + 2, 2, 1000), 1);
  EXPECT_EQ(uk_nl_take(sock, lent + 3, 1, 0), -EAGAIN);
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(lent[i].len, (unsigned long)sizes[i]);
    EXPECT_EQ(((const unsigned char *)lent[i].data)[sizes[i] - 1], i);
  }
  EXPECT_TRUE(lent[1].data == sent[1]);
  uk_nl_give_back(sock, lent + 1, 2);
  uk_nl_give_back(sock, lent, 1);
  uk_nl_close(sock);
  sock_release(sk->sk_socket);
}

namespace {

enum { LENT_MAX = 8 };

// Lends as many messages as count as more than a receive buffer of 2048 has room for.
long lend_all_room(struct sock *sk, struct uk_nlsock *sock, struct uk_nl_lent *lent) {
  long taken = 0;
  for (int i = 0; i < 4; i++) {
    EXPECT_EQ(kernel_send(sk, 4711, 1000, 0), 1000);
    EXPECT_EQ(uk_nl_take(sock, lent + taken, 1, 0), 1);
    taken++;
  }
  return taken;
}

struct Sender {
  struct sock *sk;
  int result;
};

void send_one(void *arg) {
  auto *sender = (Sender *)arg;
  sender->result = kernel_send(sender->sk, 4711, 100, 0);
}

}  // namespace

CASE(uk_net, lent_messages_count_until_they_are_given_back) {
  struct sock *sk = open_kernel_socket();
  REQUIRE_TRUE(sk);
  struct uk_nlsock *sock;
  REQUIRE_EQ(uk_nl_open(PEER_UNIT, 4711, 2048, &sock), 0);
  struct uk_nl_lent lent[LENT_MAX];
  const long taken = lend_all_room(sk, sock, lent);
  EXPECT_EQ(kernel_send(sk, 4711, 100, 0), -EAGAIN);
  uk_nl_give_back(sock, lent, (unsigned long)taken);
  EXPECT_EQ(kernel_send(sk, 4711, 100, 0), 100);
  // What was lost is told first, and the message is still there.
  EXPECT_EQ(uk_nl_take(sock, lent, LENT_MAX, 0), -ENOBUFS);
  EXPECT_EQ(uk_nl_take(sock, lent, LENT_MAX, 0), 1);
  uk_nl_give_back(sock, lent, 1);
  uk_nl_close(sock);
  sock_release(sk->sk_socket);
}

CASE(uk_net, sender_that_waits_goes_on_when_messages_are_given_back) {
  struct sock *sk = open_kernel_socket();
  REQUIRE_TRUE(sk);
  sk->sk_sndtimeo = 20 * HZ;
  struct uk_nlsock *sock;
  REQUIRE_EQ(uk_nl_open(PEER_UNIT, 4711, 2048, &sock), 0);
  struct uk_nl_lent lent[LENT_MAX];
  const long taken = lend_all_room(sk, sock, lent);
  Sender sender = {sk, 0};
  struct ThreadTeam team;
  REQUIRE_TRUE(thread_team_start(&team, 1, send_one, &sender));
  schedule_timeout_uninterruptible(20);  // so that it waits, as a rule
  uk_nl_give_back(sock, lent, (unsigned long)taken);
  const long got = uk_nl_take(sock, lent, LENT_MAX, 5000);
  EXPECT_EQ(got, 1);
  if (got > 0) uk_nl_give_back(sock, lent, (unsigned long)got);
  thread_team_wait(&team, 1);
  EXPECT_EQ(sender.result, 100);
  uk_nl_close(sock);
  sock_release(sk->sk_socket);
}

CASE(uk_net, shutdown_ends_receiving) {
  struct sock *sk = open_kernel_socket();
  REQUIRE_TRUE(sk);
  struct uk_nlsock *sock;
  REQUIRE_EQ(uk_nl_open(PEER_UNIT, 4711, 0, &sock), 0);
  EXPECT_EQ(kernel_send(sk, 4711, 10, 0), 10);
  uk_nl_shutdown(sock);
  char data[64];
  EXPECT_EQ(uk_nl_recv(sock, data, sizeof(data), 1000), 10);
  EXPECT_EQ(uk_nl_recv(sock, data, sizeof(data), 1000), -ESHUTDOWN);
  struct uk_nl_lent lent;
  EXPECT_EQ(kernel_send(sk, 4711, 10, 0), 10);
  EXPECT_EQ(uk_nl_take(sock, &lent, 1, 1000), 1);
  uk_nl_give_back(sock, &lent, 1);
  EXPECT_EQ(uk_nl_take(sock, &lent, 1, 1000), -ESHUTDOWN);
  uk_nl_close(sock);
  sock_release(sk->sk_socket);
}

namespace {

int copy_in(struct sock *sk, int, void __user *user, unsigned int len) {
  char data[16];
  EXPECT_TRUE(sk != NULL);
  EXPECT_EQ(sk->sk_family, PF_INET);
  if (len > sizeof(data)) return -EINVAL;
  return copy_from_user(data, user, len);
}

int copy_out(struct sock *, int, void __user *user, int *len) {
  *len = 4;
  return copy_to_user(user, "four", 4);
}

}  // namespace

CASE(uk_net, options_reach_user_memory_only) {
  struct nf_sockopt_ops ops;
  memset(&ops, 0, sizeof(ops));
  ops.pf = PF_INET;
  ops.set_optmin = ops.get_optmin = 1000;
  ops.set_optmax = ops.get_optmax = 1001;
  ops.set = copy_in;
  ops.get = copy_out;
  REQUIRE_EQ(nf_register_sockopt(&ops), 0);
  char value[8] = "1234567";
  int len = 8;
  EXPECT_EQ(uk_setsockopt(PF_INET, 1000, value, 8), 8);
  EXPECT_EQ(uk_getsockopt(PF_INET, 1000, value, &len), 4);
  REQUIRE_EQ(uk_user_add(value, sizeof(value)), 0);
  EXPECT_EQ(uk_setsockopt(PF_INET, 1000, value, 8), 0);
  EXPECT_EQ(uk_getsockopt(PF_INET, 1000, value, &len), 0);
  EXPECT_EQ(len, 4);
  EXPECT_EQ(memcmp(value, "four", 4), 0);
  EXPECT_EQ(uk_setsockopt(PF_INET, 1000, value, 0x80000000u), -EINVAL);
  EXPECT_EQ(uk_setsockopt(PF_INET, 1001, value, 8), -ENOPROTOOPT);
  uk_user_del(value);
  nf_unregister_sockopt(&ops);
}

CASE(uk_net, each_part_of_a_buffer_is_a_fault_point) {
  uk_fault_arm(1);
  EXPECT_TRUE(alloc_skb(100, GFP_KERNEL) == NULL);
  uk_fault_arm(2);
  EXPECT_TRUE(alloc_skb(100, GFP_KERNEL) == NULL);
  uk_fault_arm(3);
  struct sk_buff *skb = alloc_skb(100, GFP_KERNEL);
  EXPECT_TRUE(skb != NULL);
  EXPECT_EQ(uk_fault_count(), 2ul);
  uk_fault_arm(0);
  kfree_skb(skb);
}

CASE(uk_net, opening_fails_cleanly_at_each_fault_point) {
  unsigned long points = 0;
  for (unsigned long n = 1;; n++) {
    struct uk_nlsock *sock = NULL;
    uk_fault_arm(n);
    const int err = uk_nl_open(PEER_UNIT, 4711, 0, &sock);
    points = uk_fault_count();
    uk_fault_arm(0);
    if (err == 0) {
      uk_nl_close(sock);
      break;
    }
    EXPECT_TRUE(err == -ENFILE || err == -ENOMEM);
    REQUIRE_TRUE(n < 20);
  }
  EXPECT_EQ(points, 2ul);
}

CASE(uk_net, kernel_socket_fails_cleanly_at_each_fault_point) {
  for (unsigned long n = 1;; n++) {
    uk_fault_arm(n);
    struct sock *sk = open_kernel_socket();
    uk_fault_arm(0);
    if (sk) {
      sock_release(sk->sk_socket);
      break;
    }
    REQUIRE_TRUE(n < 20);
  }
}

CASE(uk_net, message_without_memory_is_refused) {
  struct sock *sk = open_kernel_socket();
  REQUIRE_TRUE(sk);
  struct uk_nlsock *sock;
  REQUIRE_EQ(uk_nl_open(PEER_UNIT, 4711, 0, &sock), 0);
  uk_fault_arm(1);
  EXPECT_EQ(uk_nl_send(sock, "hello", 5), -ENOBUFS);
  uk_fault_arm(0);
  EXPECT_EQ(calls, 0);
  uk_nl_close(sock);
  sock_release(sk->sk_socket);
}

static void put_past_the_end() {
  struct sk_buff *skb = alloc_skb(64, GFP_KERNEL);
  if (skb) skb_put(skb, skb_tailroom(skb) + 1);
}

CASE(uk_net, put_past_the_end_is_reported) {
  EXPECT_REPORT(put_past_the_end, "BUG");
}

static void push_past_the_head() {
  struct sk_buff *skb = alloc_skb(64, GFP_KERNEL);
  if (skb) skb_push(skb, 1);
}

CASE(uk_net, push_past_the_head_is_reported) {
  EXPECT_REPORT(push_past_the_head, "BUG");
}

static void leave_a_buffer_behind() {
  if (!alloc_skb(64, GFP_KERNEL)) return;
  uk_task_leave();
  uk_shutdown();
}

CASE(uk_net, buffer_left_behind_is_reported) {
  EXPECT_REPORT(leave_a_buffer_behind, "skbuff_head_cache");
}
