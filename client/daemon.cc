// SPDX-License-Identifier: GPL-2.0
#include "client/daemon.h"

#include <linux/netlink.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include <fmt/format.h>

#include "client/read_ahead.h"
#include "module/os_public/Include/ox_msg.h"

namespace tarn {
namespace {

using Clock = std::chrono::steady_clock;

std::uint16_t message_type(Bytes packet) {
  nlmsghdr header{};
  if (packet.size() >= sizeof(header)) std::memcpy(&header, packet.data(), sizeof(header));
  return header.nlmsg_type;
}

Error gone() {
  return {-EPIPE, "the module's side of the channel was closed: tarnd has ended or was stopped"};
}

/* More batches than a link's queue holds; bounds the loop if packets keep arriving. */
constexpr int kDrainBatches = 512;

/* A program that waits for room in a former channel sends as soon as there is some. */
constexpr int kFormerQuietMs = 100;
/* tarnd sends what it still has and hangs up. */
constexpr int kFormerEndMs = 5000;

/* Whether it became readable in time. */
Result<bool> wait_readable(int fd, int timeout_ms) {
  for (;;) {
    pollfd waits{fd, POLLIN, 0};
    const int ready = poll(&waits, 1, timeout_ms);
    if (ready >= 0) return ready > 0;
    if (errno != EINTR) return system_error(errno, "cannot wait for a former channel");
  }
}

}  // namespace

Result<std::unique_ptr<DaemonChannel>> DaemonChannel::open(const Site &site, Claim claim,
                                                           ChannelStore *store) {
  auto channel = open_stored(site, claim, store);
  // What is kept would hold the lock and the port of the next attempt.
  if (!channel && store) store->clear();
  return channel;
}

/*
 * The registration moves to a connection of this process, because its process id is where the
 * module sends messages and signals to. Former connections are read behind the confirmation: then
 * only programs that are just sending use them still.
 */
Result<std::unique_ptr<DaemonChannel>> DaemonChannel::open_stored(const Site &site, Claim claim,
                                                                  ChannelStore *store) {
  auto former = store ? store->take() : ChannelStore::Former{};
  auto link = site.in_kernel() ? open_netlink_link() : connect_unix_link(site.run_dir);
  if (!link) return link.error();
  std::optional<DaemonLock> lock;
  if (former.lock) {
    lock = DaemonLock::inherit(site, std::move(former.lock));
    if (!lock) {  // another has been the daemon since
      former.channels.clear();
      store->clear();
    }
  }
  if (!lock) {
    auto taken = DaemonLock::take(site, claim);
    if (!taken) return taken.error();
    lock = std::move(*taken);
  }
  if (store) store->keep((*link)->fd(), lock->fd());
  auto reading = read_ahead(std::move(*link));
  if (!reading) return reading.error();
  auto channel = open(std::move(*reading), std::move(*lock));
  if (!channel) return channel;
  std::deque<std::vector<std::byte>> since;
  std::swap(since, (*channel)->pending_);
  for (UniqueFd &fd : former.channels) {
    const auto from =
        site.in_kernel() ? adopt_netlink_link(std::move(fd)) : adopt_unix_link(std::move(fd));
    if (auto taken = (*channel)->take_former(*from); !taken) return taken.error();
  }
  for (auto &packet : since) (*channel)->pending_.push_back(std::move(packet));
  (*channel)->goes_on_ = !former.channels.empty();
  if (store) store->drop_former();
  return channel;
}

/* All that was sent to it, to pending_. */
Result<void> DaemonChannel::take_former(MessageLink &former) {
  bool half_closed = false;
  for (PacketBatch batch; !batch.closed;) {
    const auto more = wait_readable(former.fd(), half_closed ? kFormerEndMs : kFormerQuietMs);
    if (!more) return more.error();
    if (!*more && (half_closed || !former.half_close())) return {};
    if (!*more) half_closed = true;
    if (auto got = former.receive(batch); !got) return got;
    oversized_ += batch.oversized;
    foreign_ += batch.foreign;
    overruns_ += batch.overrun;
    for (const Bytes packet : batch.packets) pending_.emplace_back(packet.begin(), packet.end());
  }
  return {};
}

Result<std::unique_ptr<DaemonChannel>> DaemonChannel::open(std::unique_ptr<MessageLink> link,
                                                           DaemonLock lock, Milliseconds timeout) {
  // Before the hello: the module may send the signal from then on.
  auto loss = LossSignal::install();
  if (!loss) return loss.error();
  std::unique_ptr<DaemonChannel> channel(
      new DaemonChannel(std::move(link), std::move(lock), std::move(*loss)));
  if (auto sent = channel->send(OX_NL_HELO, {}); !sent) return sent.error();
  channel->registered_ = true;
  // The module does not answer a hello, but it answers requests, and only to the registered daemon.
  auto confirmed = channel->request(OX_SO_REP_DEL, {}, timeout);
  if (!confirmed && confirmed.error().code == -ETIMEDOUT)
    return Error{
        -EPERM,
        "the module did not confirm the registration as the daemon: only root and the user that "
        "runs tarnd may register; 'tarn log' may say more"};
  if (!confirmed) return confirmed.error();
  return channel;
}

DaemonChannel::~DaemonChannel() {
  if (auto left = leave(); !left) return;  // nobody to report the error to
}

Result<void> DaemonChannel::send(std::uint16_t type, Bytes payload) {
  nlmsghdr header{};
  header.nlmsg_len = static_cast<std::uint32_t>(sizeof(header) + payload.size());
  header.nlmsg_type = type;
  header.nlmsg_flags = type == OX_NL_HELO ? link_->hello_flags() : 0;
  header.nlmsg_pid = static_cast<std::uint32_t>(getpid());
  std::vector<std::byte> packet(header.nlmsg_len);
  std::memcpy(packet.data(), &header, sizeof(header));
  if (!payload.empty()) std::memcpy(packet.data() + sizeof(header), payload.data(), payload.size());
  return link_->send(packet);
}

/* Consumes the packet and returns true if it is the answer to the oldest request. */
bool DaemonChannel::take_answer(Bytes packet) {
  if (outstanding_.empty() || message_type(packet) != outstanding_.front().type) return false;
  auto message = decode(packet);
  if (!message) return false;
  const Request request = outstanding_.front();
  outstanding_.pop_front();
  if (request.barrier != 0)
    barriers_ = request.barrier;
  else
    result_ = std::get<Reply>(*message).result;
  return true;
}

Result<void> DaemonChannel::take_batch() {
  auto got = link_->receive(batch_);
  oversized_ += batch_.oversized;
  foreign_ += batch_.foreign;
  overruns_ += batch_.overrun;
  closed_ = closed_ || batch_.closed;
  return got;
}

void DaemonChannel::queue_batch() {
  for (const Bytes packet : batch_.packets) {
    if (!take_answer(packet)) pending_.emplace_back(packet.begin(), packet.end());
  }
}

std::uint64_t DaemonChannel::take_losses() {
  signals_ += loss_->take();
  const std::uint64_t losses = std::max(signals_, overruns_);
  return losses - std::exchange(losses_reported_, losses);
}

Result<void> DaemonChannel::wait(Milliseconds timeout, int wake_fd, Received &received) {
  pollfd fds[] = {{link_->fd(), POLLIN, 0}, {loss_->fd(), POLLIN, 0}, {wake_fd, POLLIN, 0}};
  const auto time = timeout.count() < 0 ? -1 : static_cast<int>(timeout.count());
  if (poll(fds, std::size(fds), time) < 0 && errno != EINTR)
    return system_error(errno, "cannot wait for the module");
  received.woken = fds[2].revents != 0;
  signals_ += loss_->take();
  if (fds[0].revents != 0) return take_batch();
  batch_.clear();
  return {};
}

Result<DaemonChannel::Received> DaemonChannel::receive(Milliseconds timeout, int wake_fd) {
  Received received;
  returned_.clear();
  std::swap(returned_, pending_);
  packets_.assign(returned_.begin(), returned_.end());
  if (!packets_.empty() || closed_) timeout = Milliseconds(0);
  if (auto waited = wait(timeout, wake_fd, received); !waited) return waited.error();
  for (const Bytes packet : batch_.packets) {
    if (!take_answer(packet)) packets_.push_back(packet);
  }
  received.packets = packets_;
  received.arrived_until = batch_.arrived_until;
  received.lost = take_losses();
  received.barriers = barriers_;
  received.oversized = std::exchange(oversized_, 0);
  received.foreign = std::exchange(foreign_, 0);
  received.closed = closed_;
  return received;
}

/*
 * Empties the receive queue before a request. A module in the kernel queues its answer before the
 * call that sends the request returns: with a full queue it would wait for this thread, which waits
 * for it, and then drop the answer.
 */
Result<void> DaemonChannel::drain_link() {
  for (int i = 0; i < kDrainBatches && !closed_; ++i) {
    if (auto taken = take_batch(); !taken) return taken.error();
    if (batch_.empty()) break;
    queue_batch();
  }
  return {};
}

Result<void> DaemonChannel::send_request(std::uint16_t type, Bytes payload, std::uint64_t barrier) {
  if (auto room = drain_link(); !room) return room.error();
  if (auto sent = send(type, payload); !sent) return sent.error();
  outstanding_.push_back({type, barrier});
  return {};
}

Result<std::uint64_t> DaemonChannel::send_barrier() {
  // The module refuses a delete request without a record by its length, so it changes nothing.
  if (auto sent = send_request(OX_SO_REP_DEL, {}, barriers_sent_ + 1); !sent) return sent.error();
  return ++barriers_sent_;
}

Result<std::int32_t> DaemonChannel::request(std::uint16_t type, Bytes payload,
                                            Milliseconds timeout) {
  if (auto sent = send_request(type, payload, 0); !sent) return sent.error();
  // Answers come in order, so ours is the last outstanding one.
  const auto deadline = Clock::now() + timeout;
  while (!outstanding_.empty()) {
    const auto left = std::chrono::ceil<Milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) {
      outstanding_.clear();
      return Error{-ETIMEDOUT,
                   fmt::format("the module did not answer within {} ms", timeout.count())};
    }
    Received passing;
    if (auto waited = wait(left, -1, passing); !waited) return waited.error();
    queue_batch();
    if (closed_ && !outstanding_.empty()) return gone();
  }
  return result_;
}

void DaemonChannel::pass_on() {
  registered_ = false;
  link_->stop_reading_ahead();
}

Result<void> DaemonChannel::leave() {
  if (!registered_ || closed_) return {};
  registered_ = false;
  if (taken_over()) return {};
  return send(OX_NL_QUIT, {});
}

}  // namespace tarn
