// SPDX-License-Identifier: GPL-2.0
// Receiving datagrams, and the copies between iovecs and kernel buffers.

#include <asm/uaccess.h>
#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/sched.h>
#include <linux/skbuff.h>
#include <linux/socket.h>
#include <linux/wait.h>
#include <net/sock.h>

#include "ukern/sync/guard.h"

// What a receiver does after waiting.
enum class WaitResult { kRetry, kStop };

static bool receive_queue_empty(struct sock *sk) {
  SpinGuard guard(sk->sk_receive_queue.lock);
  return skb_queue_empty(&sk->sk_receive_queue);
}

// Checks for a reason not to sleep, after the receiver has been put on the wait queue. True: sleep.
static bool packet_wait_needed(struct sock *sk, long timeo, int *err, WaitResult *result) {
  const int error = sock_error(sk);
  if (error) {
    *err = error;
    *result = WaitResult::kStop;
    return false;
  }
  *result = WaitResult::kRetry;
  if (!receive_queue_empty(sk)) return false;
  if (__atomic_load_n(&sk->sk_shutdown, __ATOMIC_ACQUIRE) & RCV_SHUTDOWN) {
    *err = 0;
    *result = WaitResult::kStop;
    return false;
  }
  if (signal_pending(current)) {
    *err = sock_intr_errno(timeo);
    *result = WaitResult::kStop;
    return false;
  }
  return true;
}

static WaitResult wait_for_packet(struct sock *sk, int *err, long *timeo) {
  WaitResult result;
  DEFINE_WAIT(wait);
  prepare_to_wait_exclusive(sk->sk_sleep, &wait, TASK_INTERRUPTIBLE);
  if (packet_wait_needed(sk, *timeo, err, &result)) *timeo = schedule_timeout(*timeo);
  finish_wait(sk->sk_sleep, &wait);
  return result;
}

static struct sk_buff *peek_datagram(struct sock *sk) {
  SpinGuard guard(sk->sk_receive_queue.lock);
  struct sk_buff *skb = skb_peek(&sk->sk_receive_queue);
  if (skb) skb_get(skb);
  return skb;
}

extern "C" {

struct sk_buff *skb_recv_datagram(struct sock *sk, unsigned flags, int noblock, int *err) {
  const int error = sock_error(sk);
  if (error) {
    *err = error;
    return nullptr;
  }

  long timeo = sock_rcvtimeo(sk, noblock);
  do {
    struct sk_buff *skb = flags & MSG_PEEK ? peek_datagram(sk) : skb_dequeue(&sk->sk_receive_queue);
    if (skb) return skb;
    if (!timeo) {
      *err = -EAGAIN;
      return nullptr;
    }
    might_sleep();
  } while (wait_for_packet(sk, err, &timeo) == WaitResult::kRetry);
  return nullptr;
}

void skb_free_datagram(struct sock *, struct sk_buff *skb) {
  kfree_skb(skb);
}

int skb_copy_datagram_iovec(const struct sk_buff *from, int offset, struct iovec *to, int size) {
  BUG_ON(offset < 0 || size < 0 || static_cast<unsigned>(offset) + size > from->len);
  return memcpy_toiovec(to, from->data + offset, size);
}

int memcpy_fromiovec(unsigned char *kdata, struct iovec *iov, int len) {
  for (; len > 0; iov++) {
    const int part = iov->iov_len < static_cast<size_t>(len) ? static_cast<int>(iov->iov_len) : len;
    if (!part) continue;
    if (copy_from_user(kdata, iov->iov_base, part)) return -EFAULT;
    kdata += part;
    len -= part;
    iov->iov_base = static_cast<char __user *>(iov->iov_base) + part;
    iov->iov_len -= part;
  }
  return 0;
}

int memcpy_toiovec(struct iovec *iov, unsigned char *kdata, int len) {
  for (; len > 0; iov++) {
    const int part = iov->iov_len < static_cast<size_t>(len) ? static_cast<int>(iov->iov_len) : len;
    if (!part) continue;
    if (copy_to_user(iov->iov_base, kdata, part)) return -EFAULT;
    kdata += part;
    len -= part;
    iov->iov_base = static_cast<char __user *>(iov->iov_base) + part;
    iov->iov_len -= part;
  }
  return 0;
}

}  // extern "C"
