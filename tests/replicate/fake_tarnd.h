/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A stand-in for tarnd: the two sockets in a directory of their own, each connection served by a
 * thread. The control channel keeps rules, directories, mounts and log lines as the module does,
 * without any kernel; the daemon channel notes what it receives, answers requests of the registered
 * daemon and sends what a test gives it.
 */
#ifndef TARN_TESTS_REPLICATE_FAKE_TARND_H
#define TARN_TESTS_REPLICATE_FAKE_TARND_H

#include <list>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "base/unique_fd.h"
#include "tests/replicate/fake_module.h"
#include "tests/replicate/message_builder.h"

namespace tarn::test {

/* A new directory that goes with the object. */
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory &) = delete;
  TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;
  const std::string &path() const { return path_; }
  std::string operator/(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

class FakeTarnd {
 public:
  /* Serves in `run_dir`, which it makes. */
  explicit FakeTarnd(const std::string &run_dir);
  ~FakeTarnd();
  FakeTarnd(const FakeTarnd &) = delete;
  FakeTarnd &operator=(const FakeTarnd &) = delete;

  const std::string &run_dir() const { return run_dir_; }

  /* What tests look at and set, under the lock. */
  struct State : FakeModule {
    std::vector<std::pair<std::string, std::string>> mounts;
    int cache_ms = -1;  // of the last mount
    std::vector<std::string> log;
    bool registered = false;             /* a hello has come, and no quit since */
    std::uint16_t hello_flags = 0;       /* of the latest */
    bool answers = true;                 /* requests over the daemon channel */
    std::vector<std::uint16_t> received; /* types of the daemon's messages */
  };
  template <class F>
  auto with(F f) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    return f(state_);
  }

  /* Waits until the condition holds; false after a minute. */
  bool wait_for(auto condition) EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    const auto limit = Condition::Clock::now() + std::chrono::seconds(60);
    while (!condition(state_))
      if (!changed_.wait_until(lock, limit)) return condition(state_);
    return true;
  }

  /* To the latest connection of the daemon channel. */
  void send(const Packet &packet) EXCLUDES(mutex_);
  void send(const std::vector<Packet> &packets);
  void close_daemon_channel() EXCLUDES(mutex_);

 private:
  void accept_loop(int listener, void (FakeTarnd::*serve)(int)) EXCLUDES(mutex_);
  void serve_control(int socket);
  void serve_daemon(int socket) EXCLUDES(mutex_);
  void answer_control(int socket, const std::string &packet) EXCLUDES(mutex_);
  static void reply_in_pieces(int socket, const std::string &bytes);
  static void reply(int socket, int result, std::uint64_t total, const std::string &bytes);

  std::string run_dir_;
  Mutex mutex_;
  Condition changed_;
  State state_ GUARDED_BY(mutex_);
  UniqueFd control_, daemon_;
  std::list<UniqueFd> connections_ GUARDED_BY(mutex_);
  int daemon_connection_ GUARDED_BY(mutex_) = -1;
  bool ending_ GUARDED_BY(mutex_) = false;
  std::list<std::thread> threads_ GUARDED_BY(mutex_); /* one per connection */
  std::thread control_loop_, daemon_loop_;
};

}  // namespace tarn::test

#endif
