/* SPDX-License-Identifier: GPL-2.0 */
/* The user side of the netlink channel, and the messages that come through it. */
#ifndef TESTS_MODULE_KIT_DAEMON_H
#define TESTS_MODULE_KIT_DAEMON_H

#include "kernel.h"
#include "netlink.h"
#include "ox_msg.h"
#include "tests/harness/case.h"
#include "tests/module/kit/memory.h"
#include "ukern/door/uk_net.h"

/* A message of the module as it was received: a record, a notice or an answer. */
struct test_message {
  long received; /* bytes of the datagram; negative: none came, and why */
  alignas(8) ox_u8_t bytes[8192 - sizeof(long)];

  const struct nlmsghdr *head() const { return reinterpret_cast<const struct nlmsghdr *>(bytes); }
  /* OX_OP_COLLECT, OX_OP_WRITE, OX_OP_STOP_RULE, ...; -1: none came. */
  int type() const { return received < 0 ? -1 : head()->nlmsg_type; }
  /* Bytes of the payload, as the header says. */
  long length() const { return static_cast<long>(head()->nlmsg_len) - OX_NLMSG_HDRLEN; }
  template <typename T>
  const T *payload() const {
    return reinterpret_cast<const T *>(bytes + OX_NLMSG_HDRLEN);
  }

  const struct ox_msg *msg() const { return payload<struct ox_msg>(); }
  const struct ox_msg_para *para() const { return payload<struct ox_msg_para>(); }
  const struct ox_msg_attr *attr() const { return payload<struct ox_msg_attr>(); }
  const struct ox_msg_wr *wr() const { return payload<struct ox_msg_wr>(); }
  /* The operation of a record. */
  int op() const { return received < 0 ? -1 : msg()->op; }
  const char *path1() const { return para()->data; }
  const char *path2() const { return para()->data + para()->dlen1; }
};

/* A socket at the port of the current task. The daemon's, which registers and in the end quits,
 * unless it is told to be silent. */
class test_daemon {
 public:
  enum hello { kHello, kSilent };
  /* More than any case lets wait. */
  static constexpr unsigned long kAmple = 256ul << 20;

  explicit test_daemon(hello say = kHello, unsigned long rcvbuf = kAmple)
      : quits_(say == kHello),
        error_(uk_nl_open(OX_NETLINK_UNIT, static_cast<unsigned>(current->pid), rcvbuf, &sock_)) {
    EXPECT_EQ(error_, 0);
    if (!error_ && say == kHello) EXPECT_EQ(send(OX_NL_HELO), OX_NLMSG_HDRLEN);
  }
  ~test_daemon() {
    if (!error_ && quits_) send(OX_NL_QUIT);
    close();
  }
  test_daemon(const test_daemon &) = delete;
  test_daemon &operator=(const test_daemon &) = delete;

  int error() const { return error_; }
  /* Without a word, as the socket of a process that is killed. */
  void close() {
    if (!error_) uk_nl_close(sock_);
    error_ = -ENOTCONN;
  }

  long send(int type, const void *payload = nullptr, unsigned len = 0) {
    const test_buffer message(OX_NLMSG_HDRLEN + len);
    auto *head = reinterpret_cast<struct nlmsghdr *>(message.get());
    head->nlmsg_len = OX_NLMSG_HDRLEN + len;
    head->nlmsg_type = static_cast<ox_u16_t>(type);
    if (len) memcpy(message.get() + OX_NLMSG_HDRLEN, payload, len);
    return send_bytes(head, head->nlmsg_len);
  }
  /* With whatever header they have. */
  long send_bytes(const void *bytes, unsigned long len) { return uk_nl_send(sock_, bytes, len); }

  /* The next message, in the one buffer of this socket. */
  const test_message &next(unsigned wait_ms = 0) {
    auto *message = reinterpret_cast<test_message *>(message_.get());
    memset(message, 0, sizeof(*message));
    message->received = uk_nl_recv(sock_, message->bytes, sizeof(message->bytes), wait_ms);
    return *message;
  }
  /* Nothing is waiting. */
  bool idle() { return next().received == -EAGAIN; }
  /* Takes all that waits; how many messages that were. */
  int drain() {
    int count = 0;
    while (next().type() >= 0) count++;
    return count;
  }

 private:
  const test_buffer message_{sizeof(test_message)};
  struct uk_nlsock *sock_ = nullptr;
  bool quits_;
  int error_;
};

#endif
