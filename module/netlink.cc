// SPDX-License-Identifier: GPL-2.0
#include "netlink.h"

#include "ox_guard.h"

struct sock *tarn_nl_sock;
ox_u32_t daemon_pid;

static_assert(sizeof(struct nlmsghdr) == OX_NLMSG_HDRLEN, "the header of a netlink message");

int tarn_init_netlink(void) {
  daemon_pid = 0;
  tarn_nl_sock = netlink_kernel_create(OX_NETLINK_UNIT, 0, tarn_receive_nl_message, THIS_MODULE);
  if (!tarn_nl_sock) {
    printk("<3>Failed to create netlink socket\n");
    return -EIO;
  }
  printk("Create tarn_nl netlink socket success\n");
  tarn_nl_sock->sk_sndtimeo = TARN_SEND_TIMEOUT;
  return 0;
}

void tarn_release_netlink(void) {
  printk("tarn_release_netlink: release netlink socket\n");
  if (tarn_nl_sock && tarn_nl_sock->sk_socket) sock_release(tarn_nl_sock->sk_socket);
  tarn_nl_sock = nullptr;
}

/* ---- sending ---- */

static void put_header(struct sk_buff *skb, ox_u32_t len, int type, int flags, ox_u32_t seq,
                       ox_u32_t pid) {
  struct nlmsghdr *header = reinterpret_cast<struct nlmsghdr *>(skb->data);
  header->nlmsg_len = len + OX_NLMSG_HDRLEN;
  header->nlmsg_type = static_cast<ox_u16_t>(type);
  header->nlmsg_flags = static_cast<ox_u16_t>(flags);
  header->nlmsg_seq = seq;
  header->nlmsg_pid = pid;
}

/* Unregisters the daemon, unless another one has registered since. */
static void forget_daemon(ox_u32_t pid) {
  __atomic_compare_exchange_n(&daemon_pid, &pid, 0u, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED);
}

static void signal_daemon(ox_u32_t pid, int reason) {
  kill_proc(static_cast<pid_t>(pid), OX_SIG_LOST, reason);
  printk("<3>Send kill signal(%d) to process(%d); rc = %d\n", OX_SIG_LOST, pid, reason);
}

tarn_hold_signals::tarn_hold_signals() {
  sigset_t others;
  siginitsetinv(&others, sigmask(SIGKILL) | sigmask(SIGTERM) | sigmask(SIGINT) | sigmask(SIGQUIT));
  sigprocmask(SIG_BLOCK, &others, &before_);
}

tarn_hold_signals::~tarn_hold_signals() {
  sigprocmask(SIG_SETMASK, &before_, nullptr);
}

/* Sends a message, which is consumed in any case. */
static int unicast(struct sk_buff *skb, ox_u32_t pid) {
  const int blocking = 0;
  const int result = netlink_unicast(tarn_nl_sock, skb, pid, blocking);
  if (result >= 0) return 0;
  if (result == -ECONNREFUSED) {
    printk(
        "<3>Failed send tarn netlink message to pid(%d); ret = %d, process not existed, back to "
        "0\n",
        pid, result);
    forget_daemon(pid);
    signal_daemon(pid, result);
    return 0;
  }
  printk("<3>Failed send tarn netlink message to pid(%d); ret = %d, back to 0\n", pid, result);
  signal_daemon(pid, result);
  return -EMSGSIZE;
}

/* Sends a copy of `len` bytes. */
static int send_copy(const void *data, ox_u32_t len, int type, int flags, ox_u32_t seq,
                     ox_u32_t pid) {
  const int size = static_cast<int>(NLMSG_ALIGN(len + OX_NLMSG_HDRLEN));
  ox_owner<struct sk_buff, kfree_skb> skb(alloc_skb(size, GFP_KERNEL));
  if (!skb) {
    printk("<3>Failed to allocate socket buffer\n");
    return -ENOMEM;
  }
  if (skb_tailroom(skb.get()) < size) return -EMSGSIZE;
  skb_put(skb.get(), size);
  put_header(skb.get(), len, type, flags, seq, pid);
  unsigned char *payload = skb->data + OX_NLMSG_HDRLEN;
  if (len) memcpy(payload, data, len);
  memset(payload + len, 0, size - OX_NLMSG_HDRLEN - len);
  const tarn_hold_signals held;
  return unicast(skb.release(), pid);
}

int tarn_send_page(struct sk_buff **page, int len, int type, int flags, ox_u32_t seq) {
  const ox_u32_t pid = ox_load(daemon_pid);
  if (!pid) return 0;
  struct sk_buff *skb = *page;
  *page = nullptr;
  put_header(skb, static_cast<ox_u32_t>(len), type, flags, seq, pid);
  return unicast(skb, pid);
}

int tarn_send_netlink(const void *data, int len, int type, int flags, ox_u32_t seq) {
  const ox_u32_t pid = ox_load(daemon_pid);
  if (!pid) return 0;
  return send_copy(data, data ? static_cast<ox_u32_t>(len) : 0, type, flags, seq, pid);
}

int tarn_send_stop_rule(const uuid_t uuid) {
  const ox_u32_t pid = ox_load(daemon_pid);
  if (!pid) return 0;
  return send_copy(uuid, OX_UUID_LEN, OX_OP_STOP_RULE, 0, 0, pid);
}

/* ---- receiving ---- */

void tarn_receive_nl_message(struct sock *sk, int) {
  int error = 0;
  struct sk_buff *received;
  do {
    received = skb_recv_datagram(sk, 0, 0, &error);
  } while (!received && error == -EINTR);
  if (!received) {
    printk("<3>Error occurred while receiving tarn netlink message; rc = [%d]\n", error);
    return;
  }
  ox_owner<struct sk_buff, kfree_skb> skb(received);
  struct nlmsghdr *header = reinterpret_cast<struct nlmsghdr *>(skb->data);
  if (skb->len < sizeof(*header) || header->nlmsg_len < sizeof(*header) ||
      header->nlmsg_len > skb->len) {
    printk("<3>Received corrupt netlink message\n");
    return;
  }
  if (security_netlink_recv(skb.get(), CAP_NET_ADMIN)) {
    printk("<4>Dropping netlink message of type [%d] from unprivileged process [%d]\n",
           header->nlmsg_type, NETLINK_CREDS(skb.get())->pid);
    return;
  }
  tarn_process_message(skb.get(), header);
}
