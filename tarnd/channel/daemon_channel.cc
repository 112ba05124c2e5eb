// SPDX-License-Identifier: GPL-2.0
#include "tarnd/channel/daemon_channel.h"

#include <linux/netlink.h>
#include <sys/socket.h>

// The header of glibc 2.36 forgets to say that these are C.
extern "C" {
#include <sys/pidfd.h>
}

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "base/unique_fd.h"
#include "module/os_public/Include/ox_ctl.h"
#include "module/os_public/Include/ox_msg.h"
#include "tarnd/channel/peer.h"
#include "tarnd/process/limited_warning.h"
#include "ukern/door/uk_core.h"
#include "ukern/door/uk_net.h"

namespace tarnd {

using tarn::Result;
using tarn::UniqueFd;

// Longer than any message: the largest that the kernel takes is bounded by a socket's send buffer.
static constexpr size_t kPacketMax = 256 * 1024;
static constexpr unsigned kReceiveWaitMs = 60'000;
// How many messages are passed on at one stroke.
static constexpr size_t kMessages = 256;
// Waking the peer costs more than a message does, and so does waking the pump: what comes within
// this time after the last messages waits and goes together.
static constexpr std::chrono::microseconds kRest{500};
// Bytes that may wait for the pump: more than come while it rests.
static constexpr unsigned long kQueueBytes = 1 << 20;
// Bytes that may be on their way to the peer.
static constexpr int kSocketBytes = 1 << 20;

namespace {

class NetlinkSocket {
 public:
  NetlinkSocket() = default;
  ~NetlinkSocket() {
    if (sock_) uk_nl_close(sock_);
  }
  NetlinkSocket(const NetlinkSocket &) = delete;
  NetlinkSocket &operator=(const NetlinkSocket &) = delete;

  Result<void> open() {
    const int err = uk_nl_open(OX_NETLINK_UNIT, 0, kQueueBytes, &sock_);
    return err == 0 ? Result<void>() : tarn::system_error(-err, "netlink socket");
  }
  uk_nlsock *get() const { return sock_; }

 private:
  uk_nlsock *sock_ = nullptr;
};

}  // namespace

static int deliver_signal(void *arg, int signal) {
  const auto *process = static_cast<const UniqueFd *>(arg);
  if (!*process) return -ESRCH;
  return pidfd_send_signal(process->get(), signal, nullptr, 0) == 0 ? 0 : -errno;
}

namespace {

static_assert(sizeof(nlmsghdr) == OX_NLMSG_HDRLEN);

nlmsghdr head_of(const void *message) {
  nlmsghdr head;
  std::memcpy(&head, message, sizeof(head));
  return head;
}

// Messages on their way to the peer, as many as wait and fit. They are sent from where the kernel
// has put them, and lent until then.
class Batch {
 public:
  explicit Batch(uk_nlsock *sock) : sock_(sock) {}
  ~Batch() { give_back(); }
  Batch(const Batch &) = delete;
  Batch &operator=(const Batch &) = delete;

  /* At least one message, or the error of waiting for it. `several`: in packets of several; may
   * change while it waits. */
  long fill(const std::atomic<bool> &several) {
    const long n = uk_nl_take(sock_, lent_, kMessages, kReceiveWaitMs);
    if (n < 0) return n;
    messages_ = static_cast<size_t>(n);
    const bool company = several;
    for (const uk_nl_lent &message : std::span(lent_, messages_)) {
      if (company)
        add_to_company(message);
      else
        add_alone(message, message.len);
    }
    return 0;
  }

  /* Did nothing wait behind it? */
  bool emptied() const { return messages_ < kMessages; }

  /* Leaves it empty. False: the peer has hung up. */
  bool send_to(int connection) {
    for (size_t sent = 0; sent < packets_;) {
      const int n = sendmmsg(connection, &headers_[sent], static_cast<unsigned>(packets_ - sent),
                             MSG_NOSIGNAL);
      if (n < 0 && errno != EINTR) return false;
      if (n > 0) sent += static_cast<size_t>(n);
    }
    give_back();
    return true;
  }

 private:
  void give_back() {
    uk_nl_give_back(sock_, lent_, messages_);
    messages_ = packets_ = parts_used_ = 0;
  }

  /* In a packet of its own. */
  void add_alone(const uk_nl_lent &message, size_t n) {
    headers_[packets_] = {};
    headers_[packets_].msg_hdr.msg_iov = &parts_[parts_used_];
    packets_++;
    packet_bytes_ = 0;
    add_part(message.data, n);
  }

  /* Without what fills the buffer of a page up, but up to where the next message may begin. */
  void add_to_company(const uk_nl_lent &message) {
    size_t n = message.len;
    if (n >= sizeof(nlmsghdr))
      n = std::clamp<size_t>(head_of(message.data).nlmsg_len, sizeof(nlmsghdr), n);
    const size_t padding = NLMSG_ALIGN(n) - n;
    if (packets_ != 0 && packet_bytes_ + n + padding <= OX_CTL_DAEMON_PACKET_MAX)
      add_part(message.data, n);
    else
      add_alone(message, n);
    static constexpr char kPadding[NLMSG_ALIGNTO] = {};
    if (padding != 0) add_part(kPadding, padding);
  }

  /* To the last packet. */
  void add_part(const void *data, size_t n) {
    parts_[parts_used_++] = {const_cast<void *>(data), n};
    headers_[packets_ - 1].msg_hdr.msg_iovlen++;
    packet_bytes_ += n;
  }

  uk_nlsock *const sock_;
  size_t messages_ = 0, packets_ = 0, parts_used_ = 0;
  size_t packet_bytes_ = 0;  // of the last packet
  uk_nl_lent lent_[kMessages];
  iovec parts_[2 * kMessages];  // each with its padding
  mmsghdr headers_[kMessages];
};

}  // namespace

// Messages for the peer, until its socket is shut down or it has hung up. It acts as this program:
// a receiver needs no identity, and the peer's task is busy sending.
static void pump_to_peer(uk_nlsock *sock, int connection, const std::atomic<bool> *several) {
  const Task task(service_identity());
  const ActAs act(task);
  Batch batch(sock);
  for (;;) {
    const long err = batch.fill(*several);
    if (err == -ESHUTDOWN) return;
    // Nothing came for a while, or messages were lost, which the peer learns from their numbers.
    if (err < 0) continue;
    const bool emptied = batch.emptied();
    if (!batch.send_to(connection)) break;
    if (emptied) std::this_thread::sleep_for(kRest);
  }
  // Wakes the other pump, which ends the connection.
  shutdown(connection, SHUT_RDWR);
}

// A hello says what kind of packets the daemon wants.
static void note_hello(const nlmsghdr &head, std::atomic<bool> *several) {
  if (head.nlmsg_type == OX_NL_HELO) *several = (head.nlmsg_flags & OX_CTL_HELO_SEVERAL) != 0;
}

// The peer's messages, until it hangs up. The calling thread acts as the peer.
static void pump_to_kernel(int connection, uk_nlsock *sock, std::atomic<bool> *several) {
  std::vector<char> packet(kPacketMax);
  for (;;) {
    const ssize_t n = recv(connection, packet.data(), packet.size(), MSG_TRUNC);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    if (static_cast<size_t>(n) >= sizeof(nlmsghdr)) note_hello(head_of(packet.data()), several);
    const long sent = static_cast<size_t>(n) > packet.size()
                          ? -EMSGSIZE
                          : uk_nl_send(sock, packet.data(), static_cast<size_t>(n));
    if (sent < 0) {
      static LimitedWarning not_taken;
      const std::string what = fmt::format("a message of {} bytes was not taken", n);
      not_taken.print(tarn::system_error(static_cast<int>(-sent), what).text);
    }
  }
}

// Room for what comes while the peer wakes up; without the right to more, as much as anybody gets.
static void widen(int connection) {
  const int bytes = kSocketBytes;
  if (setsockopt(connection, SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof(bytes)) != 0)
    setsockopt(connection, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
}

// The messages of a peer that may not say anything: the module would drop each with a line in its
// log, which has room for so many lines.
static void drop_messages(int connection) {
  char first;
  for (ssize_t n = 1; n > 0 || (n < 0 && errno == EINTR);)
    n = recv(connection, &first, sizeof(first), 0);
}

// Between a privileged peer and the kernel, until the peer hangs up.
static Result<void> serve_daemon(int connection, const Task &task) {
  const ActAs act(task);
  NetlinkSocket sock;
  if (auto opened = sock.open(); !opened) return opened;
  widen(connection);
  std::atomic<bool> several = false;
  std::thread to_peer(pump_to_peer, sock.get(), connection, &several);
  pump_to_kernel(connection, sock.get(), &several);
  // The other pump ends with what has been sent until now, or with the peer.
  uk_nl_shutdown(sock.get());
  to_peer.join();
  return {};
}

Result<void> serve_daemon_channel(int connection, const Identity &peer) {
  if (!is_privileged(peer)) {
    drop_messages(connection);
    return {};
  }
  // Taken now: the number may belong to another process when a signal is due.
  UniqueFd process(pidfd_open(peer.pid, 0));
  const Task task(peer);
  uk_task_set_signal_handler(task.get(), deliver_signal, &process);
  auto served = serve_daemon(connection, task);
  uk_task_set_signal_handler(task.get(), nullptr, nullptr);
  return served;
}

}  // namespace tarnd
