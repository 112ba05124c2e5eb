/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The two local sockets to the module when it runs in a process instead of in a kernel. Both are
 * Unix SOCK_SEQPACKET sockets in the run directory: one packet is one request, answer or message.
 * The peer's identity is its SO_PEERCRED.
 *
 * Run directory: $TARN_RUN_DIR if set; else /run/tarn for root; else $XDG_RUNTIME_DIR/tarn; else
 * /tmp/tarn-<uid>.
 *
 * Daemon channel (OX_CTL_DAEMON_SOCKET): every packet is exactly one netlink message, header
 * included, as ox_msg.h defines it, in either direction. A daemon whose hello has
 * OX_CTL_HELO_BATCHED in nlmsg_flags is sent packets of one or more messages, each at a multiple of
 * 4 bytes and not longer than its nlmsg_len needs.
 *
 * Control channel (OX_CTL_SOCKET): the client sends an ox_ctl_request followed by `len` bytes of
 * argument and waits for one ox_ctl_reply followed by `len` bytes of result. Requests of one
 * connection are served one after another. A malformed request gets `result` -EINVAL. Integers are
 * in host byte order.
 */
#ifndef OX_CTL_H
#define OX_CTL_H

#include "TypeDef.h"

#define OX_CTL_SOCKET "control"
#define OX_CTL_DAEMON_SOCKET "daemon"
#define OX_CTL_PID_FILE "tarnd.pid"

#define OX_CTL_HELO_BATCHED 2
/* Longest packet of several messages. */
#define OX_CTL_DAEMON_PACKET_MAX 65536

/* Longest packet on the control channel; a longer result of OX_CTL_GETSOCKOPT is sent in pieces,
 * see there. */
#define OX_CTL_PACKET_MAX 65536

/* Of OX_CTL_MOUNT, in milliseconds: what it is unless somebody asks for another time, and the most
 * that may be asked for. */
#define OX_CTL_CACHE_DEFAULT 1000
#define OX_CTL_CACHE_MAX 3600000

enum ox_ctl_op {
  /* setsockopt(PF_INET, arg, bytes, len). `result` is the handler's, negative or positive. */
  OX_CTL_SETSOCKOPT = 1,
  /*
   * getsockopt(PF_INET, arg, buffer, &len). The argument is the beginning of the caller's buffer
   * (at most OX_CTL_PACKET_MAX minus the header); `room` is the buffer's size, which may be larger.
   * On success `total` is the length that the handler set, and the buffer's `total` bytes follow in
   * order in as many reply packets as needed, `len` bytes in each. A refused call has one reply.
   */
  OX_CTL_GETSOCKOPT = 2,
  /* Argument: lower directory NUL mount point NUL, both absolute. `result` is 0 or -errno; the
   * result bytes of an error are its text, one line without newline. `arg`: for how many
   * milliseconds the host may keep names and attributes (0: not at all), at most OX_CTL_CACHE_MAX.
   */
  OX_CTL_MOUNT = 3,
  /* Argument: mount point NUL. Result as for OX_CTL_MOUNT. `arg` 1: lazily, even if busy. */
  OX_CTL_UMOUNT = 4,
  /* The kernel log from line number `room` on. Result bytes are whole lines, each an ox_ctl_logline
   * followed by its text; `total` is the number of the next line to read. `arg`: milliseconds to
   * wait for a first line. */
  OX_CTL_LOG = 5,
  /* Result bytes: the mount table as text, "LOWER MOUNTPOINT OPTIONS\n" per mount, blanks and
   * backslashes in each written as \ooo like in /proc/mounts. Success is answered with `total`,
   * and in pieces, as for OX_CTL_GETSOCKOPT. */
  OX_CTL_MOUNTS = 6
};

struct ox_ctl_request {
  ox_u32_t op; /* enum ox_ctl_op */
  ox_s32_t arg;
  ox_u64_t room;
  ox_u32_t len; /* bytes of argument after this header */
  ox_u32_t pad; /* 0 */
};

struct ox_ctl_reply {
  ox_s32_t result;
  ox_u32_t len; /* bytes of result after this header */
  ox_u64_t total;
};

struct ox_ctl_logline {
  ox_u64_t number; /* 0, 1, 2, ...; a gap means that the ring overran */
  ox_u64_t us;     /* microseconds since the epoch */
  ox_u32_t level;  /* 0..7, the kernel's levels; 4 for lines without a prefix */
  ox_u32_t len;    /* bytes of text that follow, without newline */
};

static_assert(sizeof(struct ox_ctl_request) == 24, "control request");
static_assert(sizeof(struct ox_ctl_reply) == 16, "control reply");
static_assert(sizeof(struct ox_ctl_logline) == 24, "control log line");

#endif
