// SPDX-License-Identifier: GPL-2.0
// A send that waits for room ends with its time-out. In a 2.6.18 kernel the time-out begins anew
// whenever it has run out.
#include "module/kernel.h"

#include "tests/harness/case.h"
#include "tests/ukern/netlink_peer.h"

CASE(netlink, sender_waits_no_longer_than_its_time_out) {
  struct sock *sk = netlink_kernel_create(
      PEER_UNIT, 0, [](struct sock *, int) {}, THIS_MODULE);
  REQUIRE_TRUE(sk);
  sk->sk_sndtimeo = 50;
  struct socket *peer = peer_open(4711);
  REQUIRE_TRUE(peer);
  peer->sk->sk_rcvbuf = 4096;
  while (atomic_read(&peer->sk->sk_rmem_alloc) <= peer->sk->sk_rcvbuf)
    REQUIRE_EQ(kernel_send(sk, 4711, 100, 1), 100);
  const unsigned long start = jiffies;
  EXPECT_EQ(kernel_send(sk, 4711, 100, 0), -EAGAIN);
  EXPECT_TRUE(time_after_eq(jiffies, start + 50));
  char data[128];
  EXPECT_EQ(peer_recv(peer, data, sizeof(data), MSG_DONTWAIT), -ENOBUFS);
  sock_release(peer);
  sock_release(sk->sk_socket);
}
