/* SPDX-License-Identifier: GPL-2.0 */
/* What the tests of the stream share: a server with a directory of its own, a wire to it that can
 * be cut, and entries whose content follows from their position. */
#ifndef TARN_TESTS_MIRRORD_NATS_KIT_H
#define TARN_TESTS_MIRRORD_NATS_KIT_H

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "base/unique_fd.h"
#include "mirrord/stream/consumer.h"
#include "mirrord/stream/publisher.h"

namespace tarn::test {

/* A deadline for what has to come some time. */
bool eventually(const std::function<bool()> &holds);

/* A directory that goes with the object. */
class Scratch {
 public:
  Scratch();
  ~Scratch();
  Scratch(const Scratch &) = delete;
  Scratch &operator=(const Scratch &) = delete;
  std::string operator/(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

/* A nats-server on a free port of the loopback, which it keeps over restarts. */
class NatsServer {
 public:
  /* `settings`: lines of its configuration. Throws when it does not start. */
  explicit NatsServer(std::string settings = "");
  ~NatsServer();
  NatsServer(const NatsServer &) = delete;
  NatsServer &operator=(const NatsServer &) = delete;

  void start();
  void kill(); /* -9 */
  std::string store() const { return scratch_ / "store"; }
  std::string url() const { return "nats://127.0.0.1:" + port(); }
  std::string port() const { return std::to_string(port_); }
  StreamConfig config() const;

 private:
  const Scratch scratch_;
  const std::string settings_;
  int port_ = -1;
  pid_t pid_ = -1;
};

/* Passes bytes between a port of its own and the server's. */
class Wire {
 public:
  explicit Wire(const NatsServer &server);
  ~Wire();
  Wire(const Wire &) = delete;
  Wire &operator=(const Wire &) = delete;

  std::string url() const { return "nats://127.0.0.1:" + std::to_string(port_); }
  /* Ends all connections when this many more bytes have passed. */
  void cut_after(std::int64_t bytes) { left_ = bytes; }
  int cuts() const { return cuts_; }

 private:
  void run();
  const int server_port_;
  int port_ = -1;
  UniqueFd listening_;
  std::atomic<bool> stop_ = false;
  std::atomic<std::int64_t> left_;
  std::atomic<int> cuts_ = 0;
  std::thread thread_;
};

/* A log in memory. */
class Entries : public EntryReader {
 public:
  explicit Entries(std::uint8_t id = 1, std::uint8_t kind = 1);

  const Uuid &epoch() const override { return epoch_; }
  LogPosition first() const override;
  LogPosition end() const override;
  Result<std::optional<LogEntry>> read(LogPosition position) override;
  void wait(LogPosition end, std::chrono::milliseconds time) override;

  void append(int count, std::size_t size = 100);
  /* What is before the position is gone. */
  void release(LogPosition first);
  /* The log ends there again, and what follows is something else. */
  void cut(LogPosition end, int generation);
  std::string payload(LogPosition position) const;

 private:
  Uuid epoch_;
  const std::uint8_t kind_;
  mutable Mutex mutex_;
  Condition changed_;
  LogPosition first_ GUARDED_BY(mutex_) = 1;
  std::vector<std::string> payloads_ GUARDED_BY(mutex_); /* all there ever were */
  int generation_ GUARDED_BY(mutex_) = 0;
  std::string read_; /* the entry that was read last */
};

/* For what an administrator does at the servers. */
class Admin {
 public:
  explicit Admin(const NatsServer &server);
  /* The servers lose the first message with the entry. */
  void lose(const Entries &entries, LogPosition position);
  Engine &operator*() { return *engine_; }
  Engine *operator->() { return engine_.get(); }

 private:
  Connection connection_;
  std::unique_ptr<Engine> engine_;
};

/* The place of an entry in their stream. */
StreamPosition begin_of(const Entries &entries, LogPosition position = 1, std::uint32_t run = 0);

/* A publisher in a thread. */
class Publishing {
 public:
  Publishing(StreamConfig config, Entries &entries, std::uint32_t run = 0,
             LogPosition log_end = std::numeric_limits<LogPosition>::max());
  ~Publishing();
  StreamPublisher &publisher() { return *publisher_; }
  StreamPublisher::Status status() const { return publisher_->status(); }
  std::uint32_t kept_run() const { return kept_run_; }
  std::vector<std::string> said() const;
  /* Waits until the stream has everything. */
  bool done();

 private:
  Entries &entries_;
  Connection connection_;
  std::atomic<std::uint32_t> kept_run_ = 0;
  mutable Mutex mutex_;
  std::vector<std::string> said_ GUARDED_BY(mutex_);
  std::unique_ptr<StreamPublisher> publisher_;
  std::thread thread_;
};

/* Fetches up to the entry before `end`; each has to be as it was appended. Ends at a hole. */
std::vector<LogPosition> consume(StreamConsumer &consumer, const Entries &entries, LogPosition end);
std::vector<LogPosition> range(LogPosition first, LogPosition end);

}  // namespace tarn::test

#endif
