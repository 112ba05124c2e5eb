// SPDX-License-Identifier: GPL-2.0
#include "client/read_ahead.h"

#include <poll.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <deque>
#include <optional>
#include <thread>

#include "base/mutex.h"
#include "client/pipe.h"

namespace tarn {
namespace {

constexpr char kCannot[] = "cannot read ahead on the channel";

void lower(const Pipe &pipe) {
  char byte;
  while (read(pipe.read_end.get(), &byte, 1) < 0 && errno == EINTR) {
  }
}

class ReadAhead : public MessageLink {
 public:
  ReadAhead(std::unique_ptr<MessageLink> link, std::size_t limit, Pipe ready, Pipe stop)
      : link_(std::move(link)), limit_(limit), ready_(std::move(ready)), stop_(std::move(stop)) {
    // Signals are for the threads that wait for them.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    reader_ = std::thread([this] { read(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }

  ~ReadAhead() override { stop_reading_ahead(); }

  void stop_reading_ahead() override EXCLUDES(mutex_) {
    if (!reader_.joinable()) return;
    {
      const MutexLock lock(mutex_);
      stopping_ = true;
    }
    room_.notify_one();
    raise_pipe(stop_.write_end.get());
    reader_.join();
  }

  bool none_read_ahead() const override EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    return queue_.empty() && !oversized_ && !overrun_;
  }

  int fd() const override EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    return reads_directly_locked() ? link_->fd() : ready_.read_end.get();
  }

  std::uint16_t hello_flags() const override { return link_->hello_flags(); }

  Result<void> send(Bytes packet) override { return link_->send(packet); }

  Result<void> receive(PacketBatch &batch) override EXCLUDES(mutex_) {
    batch.clear();
    delivered_.clear();
    MutexLock lock(mutex_);
    if (reads_directly_locked()) {
      lock.unlock();
      return link_->receive(batch);
    }
    while (!queue_.empty() && batch.packets.size() < PacketBatch::kPackets)
      deliver_packet_locked(batch);
    batch.arrived_until = queue_.empty() ? Clock::now() : queue_.front().arrived;
    batch.oversized = std::exchange(oversized_, 0);
    batch.foreign = std::exchange(foreign_, 0);
    batch.overrun = std::exchange(overrun_, false);
    room_.notify_one();
    if (!queue_.empty()) return {};
    batch.closed = batch.closed || closed_;
    if (error_ && batch.packets.empty()) return *error_;
    if (error_) return {};
    if (!closed_ && std::exchange(readable_, false)) lower(ready_);
    return {};
  }

 private:
  using Clock = PacketBatch::Clock;

  /* What one receive call brought. */
  struct Block {
    std::vector<std::byte> bytes; /* of all packets, one behind the other */
    std::vector<std::size_t> sizes;
    Clock::time_point arrived;
    std::size_t next = 0; /* the next packet to deliver */
    std::size_t at = 0;   /* where it begins */
  };

  bool reads_directly_locked() const REQUIRES(mutex_) {
    return stopping_ && queue_.empty() && !closed_ && !error_ && !oversized_ && !overrun_;
  }

  void deliver_packet_locked(PacketBatch &batch) REQUIRES(mutex_) {
    Block &first = queue_.front();
    const std::size_t size = first.sizes[first.next++];
    batch.packets.emplace_back(first.bytes.data() + first.at, size);
    first.at += size;
    queued_bytes_ -= size;
    if (first.next < first.sizes.size()) return;
    delivered_.push_back(std::move(first));
    queue_.pop_front();
  }

  static Block block_of(const PacketBatch &batch) {
    Block block;
    std::size_t bytes = 0;
    for (const Bytes packet : batch.packets) bytes += packet.size();
    block.bytes.reserve(bytes);
    block.sizes.reserve(batch.packets.size());
    for (const Bytes packet : batch.packets) {
      block.bytes.insert(block.bytes.end(), packet.begin(), packet.end());
      block.sizes.push_back(packet.size());
    }
    block.arrived = batch.arrived_until;
    return block;
  }

  // False when there is nothing more to be read.
  bool wait_for_room() EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    while (!stopping_ && queued_bytes_ >= limit_) room_.wait(lock);
    return !stopping_ && !closed_ && !error_;
  }

  void read() {
    PacketBatch batch;
    while (wait_for_room()) {
      pollfd fds[] = {{link_->fd(), POLLIN, 0}, {stop_.read_end.get(), POLLIN, 0}};
      if (poll(fds, std::size(fds), -1) < 0 && errno != EINTR) {
        const auto error = system_error(errno, "cannot wait for the module");
        batch.clear();
        enqueue(batch, error);
      } else if (fds[1].revents != 0) {
        return;
      } else {
        const auto got = link_->receive(batch);
        enqueue(batch, got);
      }
    }
  }

  void enqueue(const PacketBatch &batch, const Result<void> &got) EXCLUDES(mutex_) {
    Block block = block_of(batch);
    const MutexLock lock(mutex_);
    queued_bytes_ += block.bytes.size();
    if (!block.sizes.empty()) queue_.push_back(std::move(block));
    oversized_ += batch.oversized;
    foreign_ += batch.foreign;
    overrun_ = overrun_ || batch.overrun;
    closed_ = closed_ || batch.closed;
    if (!got) error_ = got.error();
    const bool news = !batch.empty() || closed_ || error_;
    if (news && !std::exchange(readable_, true)) raise_pipe(ready_.write_end.get());
  }

  const std::unique_ptr<MessageLink> link_;
  const std::size_t limit_;
  const Pipe ready_; /* readable exactly while readable_ */
  const Pipe stop_;
  /* The receiver's: views into them are in use until it asks again. */
  std::vector<Block> delivered_;
  mutable Mutex mutex_;
  Condition room_;
  std::deque<Block> queue_ GUARDED_BY(mutex_);
  std::size_t queued_bytes_ GUARDED_BY(mutex_) = 0;
  std::size_t oversized_ GUARDED_BY(mutex_) = 0;
  std::size_t foreign_ GUARDED_BY(mutex_) = 0;
  bool overrun_ GUARDED_BY(mutex_) = false;
  bool closed_ GUARDED_BY(mutex_) = false;
  bool readable_ GUARDED_BY(mutex_) = false;
  bool stopping_ GUARDED_BY(mutex_) = false;
  std::optional<Error> error_ GUARDED_BY(mutex_);
  std::thread reader_;
};

}  // namespace

Result<std::unique_ptr<MessageLink>> read_ahead(std::unique_ptr<MessageLink> link,
                                                std::size_t limit) {
  auto ready = make_pipe(kCannot);
  if (!ready) return ready.error();
  auto stop = make_pipe(kCannot);
  if (!stop) return stop.error();
  return std::unique_ptr<MessageLink>(
      std::make_unique<ReadAhead>(std::move(link), limit, std::move(*ready), std::move(*stop)));
}

}  // namespace tarn
