/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The transport between the daemon and the module: packets, each one netlink message with its
 * header. The module in tarnd is reached through a Unix socket (connect_unix_link), the one in the
 * kernel through netlink (open_netlink_link); DaemonChannel needs nothing but what stands here.
 */
#ifndef TARN_CLIENT_MESSAGE_LINK_H
#define TARN_CLIENT_MESSAGE_LINK_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/result.h"
#include "client/messages.h"
#include "module/os_public/Include/ox_msg.h"

namespace tarn {

/* The packets of one receive call. Their storage belongs to the batch and is used again by the next
 * call. */
class PacketBatch {
 public:
  /* Longer than any message: a rename with two paths of 4096 bytes has 8252. */
  static constexpr std::size_t kPacketMax = 16384;
  static constexpr std::size_t kPackets = 64;

  static constexpr std::size_t kBytes = kPacketMax * kPackets;

  PacketBatch() : storage_(new std::byte[kBytes]) {}

  /* kPackets rooms of one packet each; or else kBytes, for a link that divides them itself. */
  std::byte *room(std::size_t i) { return storage_.get() + i * kPacketMax; }
  std::byte *storage() { return storage_.get(); }

  std::vector<Bytes> packets;
  std::size_t oversized = 0; /* packets that were longer than kPacketMax and are lost */
  std::size_t foreign = 0; /* packets that another program sent us; they are not among the others */
  bool overrun = false;    /* the queue was full for too long; something is lost */
  bool closed = false;     /* the other side has gone; nothing more will come */
  /* What had been read by then is in this batch or was in earlier ones. */
  using Clock = std::chrono::steady_clock;
  Clock::time_point arrived_until;

  /* Was there nothing to receive? */
  bool empty() const { return packets.empty() && !oversized && !foreign && !overrun; }

  /* Empty again; a side that has gone stays gone. */
  void clear() {
    packets.clear();
    oversized = foreign = 0;
    overrun = false;
    arrived_until = Clock::now();
  }

 private:
  std::unique_ptr<std::byte[]> storage_;
};

class MessageLink {
 public:
  virtual ~MessageLink() = default;

  /* Becomes readable when there is something to receive. */
  virtual int fd() const = 0;

  /* What the hello of a daemon on this link has for nlmsg_flags. */
  virtual std::uint16_t hello_flags() const { return 0; }

  /* Sends one packet; may wait for room. */
  virtual Result<void> send(Bytes packet) = 0;

  /* Takes what is there, at most one batch, without waiting. */
  virtual Result<void> receive(PacketBatch &batch) = 0;
};

/* Connects to the daemon channel of the tarnd that runs there. Errors: those of connect_socket().
 */
Result<std::unique_ptr<MessageLink>> connect_unix_link(const std::string &run_dir);

/*
 * A netlink socket whose port is this process's id, which is where the module sends to; so there is
 * one per process and unit. Only what the kernel itself sends is received. Errors: -EADDRINUSE when
 * the port is taken; those of socket() and bind().
 */
Result<std::unique_ptr<MessageLink>> open_netlink_link(int unit = OX_NETLINK_UNIT);

}  // namespace tarn

#endif
