/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Addresses, messages and credentials of sockets. Only what netlink and socket options need.
 */
#ifndef UKERN_LINUX_SOCKET_H
#define UKERN_LINUX_SOCKET_H

#include <linux/compiler.h>
#include <linux/types.h>
#include <linux/uio.h>

typedef unsigned short sa_family_t;

struct sockaddr {
  sa_family_t sa_family;
  char sa_data[14];
};

/* A message of sendmsg and recvmsg. Control data is not supported: msg_controllen must be 0. */
struct msghdr {
  void *msg_name;
  int msg_namelen;
  struct iovec *msg_iov;
  __kernel_size_t msg_iovlen;
  void *msg_control;
  __kernel_size_t msg_controllen;
  unsigned msg_flags;
};

/* The credentials of a sender, from the sending task. */
struct ucred {
  __u32 pid;
  __u32 uid;
  __u32 gid;
};

#define AF_UNSPEC 0
#define AF_INET 2
#define AF_NETLINK 16

#define PF_UNSPEC AF_UNSPEC
#define PF_INET AF_INET
#define PF_NETLINK AF_NETLINK

#define MSG_OOB 1
#define MSG_PEEK 2
#define MSG_TRUNC 0x20
#define MSG_DONTWAIT 0x40

#define SOL_IP 0

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Copy between a kernel buffer and the user memory of an iovec, advancing the iovec. 0, or -EFAULT
 * when user memory is not accessible; earlier parts stay copied. May sleep.
 */
int memcpy_fromiovec(unsigned char *kdata, struct iovec *iov, int len);
int memcpy_toiovec(struct iovec *iov, unsigned char *kdata, int len);

#ifdef __cplusplus
}
#endif
#endif
