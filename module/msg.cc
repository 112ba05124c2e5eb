// SPDX-License-Identifier: GPL-2.0
// Handles the daemon's messages.
#include "netlink.h"
#include "ox_guard.h"
#include "rule.h"

static void tarn_process_nl_helo(struct sk_buff *skb) {
  const ox_u32_t pid = static_cast<ox_u32_t>(NETLINK_CREDS(skb)->pid);
  ox_store(daemon_pid, pid);
  printk("tarn_process_nl_helo: daemon_pid = %d\n", pid);
}

static void tarn_process_nl_quit(void) {
  ox_store(daemon_pid, 0);
  printk("tarn_process_nl_quit: daemon_pid = 0\n");
}

/* Answers a rule message with the result. */
static int reply(int type, ox_s32_t result) {
  return tarn_send_netlink(&result, sizeof(result), type, 0, 0);
}

/* The payload is kernel memory where the rule functions expect user memory. */
static int add_rule(const void *payload, unsigned len) {
  kernel_ds_guard kernel_addresses;
  return do_add(static_cast<const void __user *>(payload), len);
}

static int del_rule(const void *payload, unsigned len) {
  kernel_ds_guard kernel_addresses;
  return do_del(static_cast<const void __user *>(payload), len);
}

void tarn_process_message(struct sk_buff *skb, struct nlmsghdr *header) {
  const void *payload = reinterpret_cast<const char *>(header) + OX_NLMSG_HDRLEN;
  const unsigned len = header->nlmsg_len - OX_NLMSG_HDRLEN;
  switch (header->nlmsg_type) {
    case OX_NL_HELO:
      tarn_process_nl_helo(skb);
      break;
    case OX_NL_QUIT:
      tarn_process_nl_quit();
      break;
    case OX_NL_RESPONSE:
      printk("tarn_process_nl_response\n");
      break;
    case OX_SO_REP_ADD:
      if (reply(OX_SO_REP_ADD, add_rule(payload, len)) < 0) {
        printk("tarn_send_netlink OX_SO_REP_ADD fail\n");
      }
      break;
    case OX_SO_REP_DEL:
      if (reply(OX_SO_REP_DEL, del_rule(payload, len)) < 0) {
        printk("tarn_send_netlink OX_SO_REP_DEL fail\n");
      }
      break;
    case OX_SO_REP_FLUSH:
      if (reply(OX_SO_REP_FLUSH, do_flush(0)) < 0) {
        printk("tarn_send_netlink OX_SO_REP_FLUSH fail\n");
      }
      break;
    case OX_OP_WRITE:
    case OX_OP_COLLECT:
      break; /* our own kind of message, sent back */
    default:
      printk("<4>Dropping netlink message of unrecognized type [%d]\n", header->nlmsg_type);
  }
}
