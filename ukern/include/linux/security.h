/* SPDX-License-Identifier: GPL-2.0 */
/* The security hooks without a security module: only capabilities decide. */
#ifndef _LINUX_SECURITY_H
#define _LINUX_SECURITY_H

#include <linux/capability.h>

struct sk_buff;

extern "C" {
/* 0 when the message's sender has the capability, else -EPERM. */
int cap_netlink_recv(struct sk_buff *skb, int cap);
}

static inline int security_netlink_recv(struct sk_buff *skb, int cap) {
  return cap_netlink_recv(skb, cap);
}

#endif
