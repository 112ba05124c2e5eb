// SPDX-License-Identifier: GPL-2.0
// Every message that a daemon can send, whole and broken, from privileged and other senders, while
// the daemon comes and goes. Registration, rules and replies are compared with a model. Input: a
// sequence of steps.
#include <linux/netlink.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/fuzz_kernel.h"
#include "fuzz/input.h"
#include "fuzz/set_model.h"
#include "fuzz/uk_fuzz.h"
#include "ukern/door/uk_net.h"

namespace {

using fuzz::check;
using fuzz::check_equal;
using fuzz::Input;
using fuzz::Kernel;

constexpr int kStepsMax = 32;
constexpr unsigned kReceiveBuffer = 1 << 20;

static_assert(sizeof(nlmsghdr) == OX_NLMSG_HDRLEN);

std::string message(unsigned length, unsigned type, const std::string &payload) {
  const nlmsghdr header = {length, static_cast<std::uint16_t>(type), 0, 0, 0};
  return std::string(reinterpret_cast<const char *>(&header), sizeof(header)) + payload;
}

class Socket {
 public:
  explicit Socket(unsigned port) {
    check_equal(uk_nl_open(OX_NETLINK_UNIT, port, kReceiveBuffer, &sock_), 0, "a socket");
  }
  ~Socket() { uk_nl_close(sock_); }
  Socket(const Socket &) = delete;
  Socket &operator=(const Socket &) = delete;

  void send(const std::string &bytes) {
    const std::vector<char> exact(bytes.begin(), bytes.end());
    const long sent = uk_nl_send(sock_, exact.data(), exact.size());
    check_equal(sent, static_cast<long long>(exact.size()), "a datagram");
  }
  /* Empty when nothing waits. */
  std::string receive() {
    std::vector<char> bytes(8192);
    const long length = uk_nl_recv(sock_, bytes.data(), bytes.size(), 0);
    if (length == -EAGAIN) return "";
    check(length > 0, "a message received");
    return {bytes.data(), static_cast<std::size_t>(length)};
  }

 private:
  uk_nlsock *sock_ = nullptr;
};

class Session {
 public:
  explicit Session(Kernel &kernel) : kernel_(kernel) {}

  void run(Input &input) {
    open();
    for (int steps = 0; steps < kStepsMax && !input.empty(); ++steps) {
      step(input);
      check_equal(uk_fuzz_daemon(), daemon_, "the registered daemon");
    }
    open();
    handle(message(OX_NLMSG_HDRLEN, OX_SO_REP_FLUSH, ""));
    handle(message(OX_NLMSG_HDRLEN, OX_NL_QUIT, ""));
    close();
  }

 private:
  void step(Input &input) {
    const unsigned kind = input.u8();
    switch (kind % 8) {
      case 0:
        return handle(read_message(input));
      case 1:
        return handle(input.bytes());
      case 2:
        return from_nobody(read_message(input));
      case 3:
        return kind & 8 ? open() : close();
      case 4:
        return change("/" + std::string(input.bytes(100).c_str()));
      case 5:
        return stop_notice(fuzz::read_uuid(input));
      default:
        return handle(read_rule_message(input, kind & 8 ? OX_SO_REP_DEL : OX_SO_REP_ADD));
    }
  }

  static std::string read_rule_message(Input &input, unsigned type) {
    const std::string record = fuzz::read_record(input, sizeof(prule));
    return message(OX_NLMSG_HDRLEN + sizeof(prule), type, record);
  }

  /* The header's length is right unless the input says something else. */
  static std::string read_message(Input &input) {
    const unsigned type = input.u16();
    const bool odd_length = input.u8() % 4 == 3;
    const unsigned given = odd_length ? input.u32() : 0;
    const std::string payload = input.bytes();
    const unsigned length = OX_NLMSG_HDRLEN + static_cast<unsigned>(payload.size());
    return message(odd_length ? given : length, type, payload);
  }

  void open() {
    if (!socket_) socket_ = std::make_unique<Socket>(static_cast<unsigned>(Kernel::kPid));
  }
  void close() { socket_.reset(); }

  /* What a message to the daemon changes when nobody is there to take it. */
  bool delivered() {
    if (!daemon_) return false;
    if (socket_) return true;
    daemon_ = 0;
    ++lost_;
    return false;
  }

  static void from_nobody(const std::string &bytes) {
    if (bytes.empty()) return;
    const fuzz::Unprivileged unprivileged;
    Socket socket(static_cast<unsigned>(Kernel::kOtherPid));
    socket.send(bytes);
    check(socket.receive().empty(), "no answer without privilege");
  }

  void handle(const std::string &bytes) {
    if (bytes.empty()) return;
    if (socket_) {
      socket_->send(bytes);
    } else {
      Socket(static_cast<unsigned>(Kernel::kPid + 1)).send(bytes);
    }
    nlmsghdr header;
    if (bytes.size() >= sizeof(header)) {
      std::memcpy(&header, bytes.data(), sizeof(header));
      if (header.nlmsg_len >= sizeof(header) && header.nlmsg_len <= bytes.size())
        handled(header.nlmsg_type, bytes.substr(sizeof(header), header.nlmsg_len - sizeof(header)));
    }
    settle();
  }

  void handled(unsigned type, const std::string &payload) {
    switch (type) {
      case OX_NL_HELO:
        daemon_ = static_cast<unsigned>(Kernel::kPid);
        break;
      case OX_NL_QUIT:
        daemon_ = 0;
        break;
      case OX_SO_REP_ADD:
        return expect_reply(type, added(payload));
      case OX_SO_REP_DEL:
        return expect_reply(
            type, payload.size() == sizeof(prule) ? rules_.remove(payload) : OX_ERR_REQUEST);
      case OX_SO_REP_FLUSH:
        rules_.flush();
        return expect_reply(type, 0);
    }
  }

  int added(const std::string &payload) {
    return payload.size() == sizeof(prule) ? rules_.add(payload) : OX_ERR_SIZE;
  }

  void expect_reply(unsigned type, int result) {
    if (!delivered()) return;
    const std::string expected(reinterpret_cast<const char *>(&result), sizeof(result));
    expect_message(type, 0, expected);
  }

  void expect_message(unsigned type, unsigned seq, const std::string &payload) {
    const std::string got = socket_->receive();
    check(got.size() >= sizeof(nlmsghdr), "a message for the daemon");
    nlmsghdr header;
    std::memcpy(&header, got.data(), sizeof(header));
    check_equal(header.nlmsg_len, static_cast<long long>(sizeof(header) + payload.size()),
                "length");
    check_equal(header.nlmsg_type, type, "type");
    check_equal(header.nlmsg_flags, 0, "flags");
    if (seq) check_equal(header.nlmsg_seq, seq, "number");
    check_equal(header.nlmsg_pid, daemon_, "port");
    check(got.substr(sizeof(header), payload.size()) == payload, "payload");
  }

  void change(const std::string &path) {
    const int hits = rules_.hits(path);
    check_equal(uk_fuzz_hits(path.c_str()), hits, "rules hit");
    check_equal(uk_fuzz_change(path.c_str()), 0, "a captured change");
    for (int i = 0; i < hits; ++i)
      if (delivered()) check(!socket_->receive().empty(), "a record for each rule");
    settle();
  }

  void stop_notice(const std::string &uuid) {
    check_equal(uk_fuzz_stop_notice(reinterpret_cast<const unsigned char *>(uuid.data())), 0,
                "notice");
    if (delivered()) expect_message(OX_OP_STOP_RULE, 0, uuid);
    settle();
  }

  /* Nothing else has come, and the daemon has got a signal for each message that found no port. */
  void settle() {
    if (socket_) check(socket_->receive().empty(), "no further message");
    check_equal(kernel_.lost_signals(), lost_, "signals for lost messages");
    lost_ = 0;
  }

  Kernel &kernel_;
  std::unique_ptr<Socket> socket_;
  fuzz::RuleModel rules_;
  unsigned daemon_ = 0;
  int lost_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  Kernel &kernel = Kernel::get();
  Input input(data, size);
  Session(kernel).run(input);
  kernel.check_leaks();
  return 0;
}
