/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A stand-in for the service behind a control socket, which notes what it is asked; a client that
 * sends and receives plain bytes; and the commands, run in this process.
 */
#ifndef TARN_TESTS_MIRRORD_CONTROL_FIXTURE_H
#define TARN_TESTS_MIRRORD_CONTROL_FIXTURE_H

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "base/mutex.h"
#include "base/unique_fd.h"
#include "mirrord/control/control.h"

namespace tarn::test {

/* A new directory that others can look into, and that goes with the object. */
class ControlDirectory {
 public:
  ControlDirectory();
  ~ControlDirectory();
  ControlDirectory(const ControlDirectory &) = delete;
  ControlDirectory &operator=(const ControlDirectory &) = delete;
  const std::string &path() const { return path_; }
  std::string operator/(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

/* Two sources: data with the targets copy and usb, home with none but far. */
ServiceReport sample_report();

class FakeService : public ServiceControl {
 public:
  ServiceReport report() override;
  Result<void> wait(const TargetName &name, std::chrono::milliseconds timeout,
                    const Progress &progress) override;
  Result<void> pause(const TargetName &name) override;
  Result<void> resume(const TargetName &name) override;
  Result<void> resync(const TargetName &name) override;
  Result<std::string> skip(const TargetName &name) override;
  Result<void> retire(const TargetName &name) override;
  Result<std::vector<Difference>> verify(const TargetName &name, bool repair,
                                         const Progress &progress) override;

  /* What it was asked, as "verb source/target". */
  std::vector<std::string> calls() EXCLUDES(mutex_);

  /* What it answers; set before it is asked. */
  ServiceReport says = sample_report();
  Result<void> outcome;
  std::vector<Difference> differences;
  std::atomic<bool> lasts = false;     /* wait and verify: until they are told to end */
  std::atomic<bool> lasting = false;   /* one of them has begun */
  std::atomic<bool> told_gone = false; /* one of them was told that nobody waits for it */

 private:
  Result<void> note(const std::string &verb, const TargetName &name) EXCLUDES(mutex_);
  Result<void> last(const Progress &progress);

  Mutex mutex_;
  std::vector<std::string> calls_ GUARDED_BY(mutex_);
};

/* A connection of its own; throws if it cannot be made. */
class RawClient {
 public:
  explicit RawClient(const std::string &socket);
  explicit RawClient(UniqueFd connected) : fd_(std::move(connected)) {}
  /* False if the other end has closed. */
  bool send(const std::string &bytes) const;
  /* Has the other end closed? What it sent before may still be there to be read. */
  bool closed() const;
  /* No more requests. */
  void end_sending() const;
  /* The next line; "" at the end of the stream. Throws if none comes within a minute. */
  std::string line();
  nlohmann::json answer() { return nlohmann::json::parse(line()); }
  /* Sends a request and returns the first line of the answer. */
  nlohmann::json ask(const std::string &request);

 private:
  UniqueFd fd_;
  std::string in_;
};

struct CommandEnd {
  int exit = -1;
  std::string out, err;
};

/* Runs the words of a command line as the program would and returns the exit status, or -1 if there
 * was no verb; --config FILE leads to FILE.sock. */
int run_words(std::vector<std::string> words);
/* And catches what it prints. */
CommandEnd run_command(std::vector<std::string> words);

/* Polls until the condition holds; false after a minute. */
bool eventually(auto condition) {
  for (int i = 0; i < 6000; ++i) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

class ControlTest : public testing::Test {
 protected:
  void serve(const ControlLimits &limits = {}) {
    auto server = ControlServer::open(socket_, service_, limits);
    ASSERT_TRUE(server.ok()) << server.error().text;
    server_ = std::move(*server);
  }
  /* The words, and where the service is. */
  CommandEnd command(std::vector<std::string> words) const {
    words.insert(words.end(), {"--socket", socket_});
    return run_command(std::move(words));
  }

  ControlDirectory dir_;
  const std::string socket_ = dir_ / "mirrord.sock";
  FakeService service_;
  std::unique_ptr<ControlServer> server_;
};

}  // namespace tarn::test

#endif
