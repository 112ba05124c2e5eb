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
// Messages per batch.
static constexpr size_t kMessages = 256;
// Delay between two batches. Waking the peer costs more than a message, and so does waking the
// pump: without it writes of 4 KiB take 40 % more of tarnd's processor time. A record that comes
// after a quiet time is sent at once.
static constexpr std::chrono::microseconds kBatchDelay{500};
// Bytes in the netlink socket's receive queue: more than arrive during the delay.
static constexpr unsigned long kQueueBytes = 1 << 20;
// Bytes in the send buffer of the peer's connection.
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

// Messages on their way to the peer, sent without a copy: the kernel lends its buffers until then.
class Batch {
 public:
  explicit Batch(uk_nlsock *sock) : sock_(sock) {}
  ~Batch() { give_back(); }
  Batch(const Batch &) = delete;
  Batch &operator=(const Batch &) = delete;

  /* Waits for at least one message; 0 or the error of the wait. `batched`: several messages per
   * packet; may change during the wait. */
  long fill(const std::atomic<bool> &batched) {
    const long n = uk_nl_take(sock_, lent_, kMessages, kReceiveWaitMs);
    if (n < 0) return n;
    messages_ = static_cast<size_t>(n);
    const bool several = batched;
    for (const uk_nl_lent &message : std::span(lent_, messages_)) {
      if (several)
        append(message);
      else
        start_packet(message, message.len);
    }
    return 0;
  }

  /* Did it take all that was queued? */
  bool drained() const { return messages_ < kMessages; }

  /* Sends and empties the batch. False: the peer has hung up. */
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

  void start_packet(const uk_nl_lent &message, size_t n) {
    headers_[packets_] = {};
    headers_[packets_].msg_hdr.msg_iov = &parts_[parts_used_];
    packets_++;
    packet_bytes_ = 0;
    add_part(message.data, n);
  }

  /* To the last packet, if it fits. Without the unused end of a page buffer, but aligned for the
   * next message. */
  void append(const uk_nl_lent &message) {
    size_t n = message.len;
    if (n >= sizeof(nlmsghdr))
      n = std::clamp<size_t>(head_of(message.data).nlmsg_len, sizeof(nlmsghdr), n);
    const size_t padding = NLMSG_ALIGN(n) - n;
    if (packets_ != 0 && packet_bytes_ + n + padding <= OX_CTL_DAEMON_PACKET_MAX)
      add_part(message.data, n);
    else
      start_packet(message, n);
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

// Messages for the peer, until its socket is shut down or it has hung up. Runs as this program:
// receiving needs no identity, and the peer's task is used by the other pump.
static void pump_to_peer(uk_nlsock *sock, int connection, const std::atomic<bool> *batched) {
  const Task task(service_identity());
  const ActAs act(task);
  Batch batch(sock);
  for (;;) {
    const long err = batch.fill(*batched);
    if (err == -ESHUTDOWN) return;
    // A time-out, or messages were lost, which the peer sees from the sequence numbers.
    if (err < 0) continue;
    const bool drained = batch.drained();
    if (!batch.send_to(connection)) break;
    if (drained) std::this_thread::sleep_for(kBatchDelay);
  }
  // Ends the other pump, and with it the connection.
  shutdown(connection, SHUT_RDWR);
}

// The flags of a hello say whether the daemon takes several messages per packet.
static void note_hello(const nlmsghdr &head, std::atomic<bool> *batched) {
  if (head.nlmsg_type == OX_NL_HELO) *batched = (head.nlmsg_flags & OX_CTL_HELO_BATCHED) != 0;
}

// Messages from the peer, until it hangs up. The calling thread's task is the peer's.
static void pump_to_kernel(int connection, uk_nlsock *sock, std::atomic<bool> *batched) {
  std::vector<char> packet(kPacketMax);
  for (;;) {
    const ssize_t n = recv(connection, packet.data(), packet.size(), MSG_TRUNC);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    if (static_cast<size_t>(n) >= sizeof(nlmsghdr)) note_hello(head_of(packet.data()), batched);
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

// Room for the messages of the time in which the peer wakes up. Without CAP_NET_ADMIN the limit of
// ordinary sockets applies.
static void enlarge_send_buffer(int connection) {
  const int bytes = kSocketBytes;
  if (setsockopt(connection, SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof(bytes)) != 0)
    setsockopt(connection, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
}

// For unprivileged peers: the module would drop each message with a line in its log, and so push
// other lines out of it.
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
  enlarge_send_buffer(connection);
  std::atomic<bool> batched = false;
  std::thread to_peer(pump_to_peer, sock.get(), connection, &batched);
  pump_to_kernel(connection, sock.get(), &batched);
  // The other pump still delivers what is queued, unless the peer has gone.
  uk_nl_shutdown(sock.get());
  to_peer.join();
  return {};
}

Result<void> serve_daemon_channel(int connection, const Identity &peer) {
  if (!is_privileged(peer)) {
    drop_messages(connection);
    return {};
  }
  // Opened now: the process id may be reused before a signal is due.
  UniqueFd process(pidfd_open(peer.pid, 0));
  const Task task(peer);
  uk_task_set_signal_handler(task.get(), deliver_signal, &process);
  auto served = serve_daemon(connection, task);
  uk_task_set_signal_handler(task.get(), nullptr, nullptr);
  return served;
}

}  // namespace tarnd
