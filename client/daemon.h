/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The daemon's side of the channel with the module: registers this process (hello), receives the
 * module's messages, sends rule requests, and unregisters (quit).
 *
 * One thread uses a channel. Packets that arrive while a call waits for an answer are queued for
 * the next receive().
 *
 * A barrier is a request that changes nothing. Its answer comes after all records that the module
 * sent before. When Received::barriers has reached a barrier's number, and the packets of this and
 * all earlier calls have been handled, all changes made before the barrier was sent have been
 * handled.
 */
#ifndef TARN_CLIENT_DAEMON_H
#define TARN_CLIENT_DAEMON_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "base/result.h"
#include "client/channel_store.h"
#include "client/daemon_lock.h"
#include "client/loss_signal.h"
#include "client/message_link.h"
#include "client/messages.h"
#include "client/site.h"

namespace tarn {

class DaemonChannel {
 public:
  using Milliseconds = std::chrono::milliseconds;

  /*
   * Registers with the site's module and waits for the confirmation. With a store, what was sent to
   * earlier processes and read by none is received first, with answers to their requests, and this
   * channel is kept in the store.
   */
  static Result<std::unique_ptr<DaemonChannel>> open(const Site &site, Claim claim,
                                                     ChannelStore *store = nullptr);

  /* The same over any link, with a lock that the caller has taken. */
  static Result<std::unique_ptr<DaemonChannel>> open(std::unique_ptr<MessageLink> link,
                                                     DaemonLock lock,
                                                     Milliseconds timeout = kAnswerTimeout);

  /* Calls leave() if the caller has not. */
  ~DaemonChannel();
  DaemonChannel(const DaemonChannel &) = delete;
  DaemonChannel &operator=(const DaemonChannel &) = delete;

  struct Received {
    std::span<const Bytes> packets; /* each one message for decode(); valid until the next call */
    std::uint64_t lost = 0;         /* times that a message to us was lost */
    std::size_t oversized = 0;      /* packets too long to be messages */
    std::size_t foreign = 0;        /* packets of other programs, ignored */
    std::uint64_t barriers = 0;     /* the number of the latest answered barrier */
    bool closed = false;            /* the module's side has closed the channel */
    bool woken = false;             /* the wake descriptor is readable */
    /* All packets that had arrived by then are in this or earlier results. Timeouts are judged by
     * this time, so that a slow reader does not declare queued packets overdue. */
    std::chrono::steady_clock::time_point arrived_until;
  };

  /*
   * Waits until there is something to receive, or `wake_fd` (-1: none) is readable, at most
   * `timeout` (negative: without limit). Answers to this channel's own requests are not among the
   * packets.
   */
  Result<Received> receive(Milliseconds timeout, int wake_fd = -1);

  /* Sends a barrier; returns its number: 1, 2, 3, ... */
  Result<std::uint64_t> send_barrier();

  /* Sends a rule request (OX_SO_REP_ADD, _DEL, _FLUSH) and returns the module's result. */
  Result<std::int32_t> request(std::uint16_t type, Bytes payload,
                               Milliseconds timeout = kAnswerTimeout);

  /* Unregisters this daemon, unless another has taken over. Messages sent before can still be
   * received. */
  Result<void> leave();

  /* Stays registered: what has not been read yet is for the process that gets the channel from the
   * store. Until all_received(), receive() returns what has been read; then what else is there, a
   * little at a time. */
  void pass_on();
  bool all_received() const { return pending_.empty() && link_->none_read_ahead(); }

  /* Does it go on where an earlier process has ended? */
  bool goes_on() const { return goes_on_; }

  /* Has another program taken over the registration? */
  bool taken_over() const { return !lock_.still_ours(); }

  static constexpr Milliseconds kAnswerTimeout{5000};

 private:
  DaemonChannel(std::unique_ptr<MessageLink> link, DaemonLock lock,
                std::unique_ptr<LossSignal> loss)
      : link_(std::move(link)), lock_(std::move(lock)), loss_(std::move(loss)) {}

  /* A request without an answer yet; answers come in the order of the requests. */
  struct Request {
    std::uint16_t type;
    std::uint64_t barrier; /* 0: a rule request */
  };

  static Result<std::unique_ptr<DaemonChannel>> open_stored(const Site &site, Claim claim,
                                                            ChannelStore *store);
  Result<void> take_former(MessageLink &former);
  Result<void> send(std::uint16_t type, Bytes payload);
  Result<void> send_request(std::uint16_t type, Bytes payload, std::uint64_t barrier);
  Result<void> wait(Milliseconds timeout, int wake_fd, Received &received);
  Result<void> take_batch();
  Result<void> drain_link();
  void queue_batch();
  bool take_answer(Bytes packet);
  std::uint64_t take_losses();

  std::unique_ptr<MessageLink> link_;
  DaemonLock lock_;
  std::unique_ptr<LossSignal> loss_;
  PacketBatch batch_;
  std::vector<Bytes> packets_;                  /* what receive() returns */
  std::deque<std::vector<std::byte>> pending_;  /* arrived while a call waited for an answer */
  std::deque<std::vector<std::byte>> returned_; /* packets_ points into these */
  std::deque<Request> outstanding_;
  std::int32_t result_ = 0; /* of the latest rule request */
  std::uint64_t barriers_sent_ = 0;
  std::uint64_t barriers_ = 0;
  /* An overrun of the queue and the signal report the same loss; either may come first. */
  std::uint64_t signals_ = 0;
  std::uint64_t overruns_ = 0;
  std::uint64_t losses_reported_ = 0;
  std::size_t oversized_ = 0;
  std::size_t foreign_ = 0;
  bool closed_ = false;
  bool registered_ = false;
  bool goes_on_ = false;
};

}  // namespace tarn

#endif
