/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The transport between the daemon and the module: packets, each one netlink message with its
 * header. connect_unix_link() reaches the module in tarnd by a Unix socket, open_netlink_link() the
 * one in the kernel by netlink. DaemonChannel uses only this interface.
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
#include "base/unique_fd.h"
#include "client/messages.h"
#include "module/os_public/Include/ox_msg.h"

namespace tarn {

/* The packets of one receive call. The batch owns their storage and reuses it in the next call. */
class PacketBatch {
 public:
  /* Longer than any message: a rename with two paths of 4096 bytes has 8252. */
  static constexpr std::size_t kPacketMax = 16384;
  static constexpr std::size_t kPackets = 64;

  static constexpr std::size_t kBytes = kPacketMax * kPackets;

  PacketBatch() : storage_(new std::byte[kBytes]) {}

  /* Storage for kPackets packets of full size, or kBytes for a link that divides it itself. */
  std::byte *room(std::size_t i) { return storage_.get() + i * kPacketMax; }
  std::byte *storage() { return storage_.get(); }

  std::vector<Bytes> packets;
  std::size_t oversized = 0; /* packets that were longer than kPacketMax and are lost */
  std::size_t foreign = 0;   /* packets of other programs, not included in `packets` */
  bool overrun = false;      /* the queue was full for too long; messages are lost */
  bool closed = false;       /* the other side has closed the link; no more packets will come */
  /* All packets that were read by then are in this batch or in earlier ones. */
  using Clock = std::chrono::steady_clock;
  Clock::time_point arrived_until;

  /* Was there nothing to receive? */
  bool empty() const { return packets.empty() && !oversized && !foreign && !overrun; }

  /* Empties the batch; `closed` stays set. */
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

  /* The nlmsg_flags of a daemon's hello on this link. */
  virtual std::uint16_t hello_flags() const { return 0; }

  /* Sends one packet; may wait for room. */
  virtual Result<void> send(Bytes packet) = 0;

  /* Receives the queued packets, at most one batch, without waiting. */
  virtual Result<void> receive(PacketBatch &batch) = 0;

  /* Tells the other side that nothing more is wanted. True: what is queued there still comes, and
   * then `closed`. False: there is nothing but what is queued here. */
  virtual bool half_close() { return false; }

  /* Leaves in the socket what has not been read yet. A later receive() returns what has been read
   * before, and when that is nothing, one batch. */
  virtual void stop_reading_ahead() {}
  /* Would receive() read from the socket? */
  virtual bool none_read_ahead() const { return true; }
};

/* Connects to the daemon channel of the tarnd of the run directory. Errors: those of
 * connect_socket(). */
Result<std::unique_ptr<MessageLink>> connect_unix_link(const std::string &run_dir);
/* The same over a connection of an earlier process. */
std::unique_ptr<MessageLink> adopt_unix_link(UniqueFd socket);

/*
 * Opens a netlink socket whose port is this process's id, to which the module sends; so there is
 * one per process and unit. Only packets from the kernel itself are received. Errors: -EADDRINUSE
 * when the port is taken; those of socket() and bind().
 */
Result<std::unique_ptr<MessageLink>> open_netlink_link(int unit = OX_NETLINK_UNIT);
/* The same over a socket of an earlier process. */
std::unique_ptr<MessageLink> adopt_netlink_link(UniqueFd socket);

}  // namespace tarn

#endif
