// SPDX-License-Identifier: GPL-2.0
// What capture costs: by the size of a write, beside what the same bytes cost through a socket of
// the host; records per second to one receiver; and each further rule.
#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <linux/netlink.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "bench/bench.h"
#include "bench/fixture.h"
#include "bench/kernel_side.h"
#include "bench/paths.h"
#include "ox_msg.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kMostBytes = 1 << 20;
constexpr int kReceiverPid = 2000;
constexpr unsigned long kReceiverQueue = 4UL << 20;
constexpr unsigned kRecords = 1000;  // in one round of a throughput measurement

alignas(64) char source[kMostBytes];
alignas(64) char target[kMostBytes];

// How many operations are timed as one, between which nothing is taken off a queue.
unsigned batch_of(size_t bytes) {
  return bytes <= 4096 ? 16 : bytes <= 65536 ? 4 : 1;
}

// The median in nanoseconds: a batch in which the machine did something else does not count.
void report_median(benchmark::State &state, std::vector<double> &seconds) {
  if (seconds.empty()) return;
  const auto middle = seconds.begin() + static_cast<std::ptrdiff_t>(seconds.size() / 2);
  std::nth_element(seconds.begin(), middle, seconds.end());
  state.counters["median_ns"] = *middle * 1e9;
}

// Times `call` in batches; `after` tidies up, untimed, and says whether all is well.
template <typename Call, typename After>
void run_batches(benchmark::State &state, unsigned batch, Call call, After after) {
  std::vector<double> times;
  for (auto _ : state) {
    const auto start = Clock::now();
    for (unsigned i = 0; i < batch; i++) call();
    const std::chrono::duration<double> time = Clock::now() - start;
    if (!after()) return state.SkipWithError("something got lost");
    times.push_back(time.count() / batch);
    state.SetIterationTime(time.count());
  }
  report_median(state, times);
}

void add_manual(const std::string &name, void (*body)(benchmark::State &, size_t), size_t bytes) {
  benchmark::RegisterBenchmark(name.c_str(), body, bytes)->UseManualTime();
}

/* ---- the host's socket ---- */

// A pair whose one end takes in any batch without the other being read.
class SocketPair {
 public:
  SocketPair() {
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends_)) fail("socketpair");
    const int bytes = 8 << 20;
    if (setsockopt(ends_[0], SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof(bytes)) &&
        setsockopt(ends_[0], SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes))) {
      fail("send buffer");
    }
  }
  ~SocketPair() {
    close(ends_[0]);
    close(ends_[1]);
  }
  SocketPair(const SocketPair &) = delete;
  SocketPair &operator=(const SocketPair &) = delete;

  bool send(size_t bytes) {
    return ::send(ends_[0], target, bytes, MSG_NOSIGNAL) == static_cast<ssize_t>(bytes);
  }
  bool send_now(size_t bytes) {
    return ::send(ends_[0], target, bytes, MSG_NOSIGNAL | MSG_DONTWAIT) ==
           static_cast<ssize_t>(bytes);
  }
  ssize_t receive(void *buf, size_t size, int flags) { return recv(ends_[1], buf, size, flags); }
  void end() { shutdown(ends_[0], SHUT_WR); }

 private:
  int ends_[2];
};

char received[kMostBytes];

void copy(size_t bytes) {
  memcpy(target, source, bytes);
  benchmark::DoNotOptimize(target);
  benchmark::ClobberMemory();
}

void memcpy_alone(benchmark::State &state, size_t bytes) {
  run_batches(
      state, batch_of(bytes), [=] { copy(bytes); }, [] { return true; });
}

void memcpy_send(benchmark::State &state, size_t bytes) {
  SocketPair pair;
  bool sent = true;
  run_batches(
      state, batch_of(bytes),
      [&] {
        copy(bytes);
        sent = pair.send_now(bytes) && sent;
      },
      [&] {
        while (pair.receive(received, sizeof(received), MSG_DONTWAIT) > 0) continue;
        return sent;
      });
}

void memcpy_send_receive(benchmark::State &state, size_t bytes) {
  SocketPair pair;
  bool sent = true;
  run_batches(
      state, batch_of(bytes),
      [&] {
        copy(bytes);
        sent = pair.send_now(bytes) && sent;
        sent = pair.receive(received, sizeof(received), 0) == static_cast<ssize_t>(bytes) && sent;
      },
      [&] { return sent; });
}

/* ---- writes and their capture ---- */

enum class Way { kMount, kCaptureAlone };
enum class Rule { kNone, kOne };
enum class Listener { kNone, kLater, kAtOnce };  // when the daemon takes the messages

bool put(Way way, size_t bytes) {
  uk_file *file = bench_kernel().file();
  if (way == Way::kCaptureAlone) return uk_bench_write_sync(file, source, bytes, 0) == 0;
  return uk_write(file, source, bytes, 0, O_WRONLY) == static_cast<long>(bytes);
}

// The bytes of capture alone are the current task's memory, as those of a write are.
class UserBytes {
 public:
  UserBytes() { uk_user_add(source, sizeof(source)); }
  ~UserBytes() { uk_user_del(source); }
  UserBytes(const UserBytes &) = delete;
  UserBytes &operator=(const UserBytes &) = delete;
};

template <Way way, Rule rule, Listener listener>
void capture(benchmark::State &state, size_t bytes) {
  BenchKernel &kernel = bench_kernel();
  kernel.install_rules(rule == Rule::kOne ? std::vector<std::string>{kLowerDir}
                                          : std::vector<std::string>{});
  if (listener != Listener::kNone) kernel.daemon().hello();
  const UserBytes user_bytes;
  bool done = true;
  run_batches(
      state, batch_of(bytes),
      [&] {
        done = put(way, bytes) && done;
        if (listener == Listener::kAtOnce) done = kernel.daemon().drain() && done;
      },
      [&] {
        if (listener == Listener::kLater) done = kernel.daemon().drain() && done;
        return done;
      });
  if (listener != Listener::kNone) kernel.daemon().quit();
}

void add_capture(size_t bytes) {
  const std::string name = fmt::format("capture/{}/", bytes);
  add_manual(name + "memcpy", memcpy_alone, bytes);
  add_manual(name + "memcpy_send", memcpy_send, bytes);
  add_manual(name + "memcpy_send_recv", memcpy_send_receive, bytes);
  add_manual(name + "write_no_rule", capture<Way::kMount, Rule::kNone, Listener::kNone>, bytes);
  add_manual(name + "write_no_daemon", capture<Way::kMount, Rule::kOne, Listener::kNone>, bytes);
  add_manual(name + "write_daemon", capture<Way::kMount, Rule::kOne, Listener::kLater>, bytes);
  add_manual(name + "capture_no_daemon", capture<Way::kCaptureAlone, Rule::kOne, Listener::kNone>,
             bytes);
  add_manual(name + "capture_daemon", capture<Way::kCaptureAlone, Rule::kOne, Listener::kLater>,
             bytes);
  add_manual(name + "capture_daemon_recv",
             capture<Way::kCaptureAlone, Rule::kOne, Listener::kAtOnce>, bytes);
}

/* ---- records per second ---- */

// Whether a message ends a record.
bool ends_record(const char *message) {
  nlmsghdr head;
  memcpy(&head, message, sizeof(head));
  if (head.nlmsg_type != OX_OP_WRITE) return true;
  ox_msg_wr page;
  memcpy(&page, message + OX_NLMSG_HDRLEN, OX_MSG_WR_LEN);
  return page.pagenr + 1 == page.pages;
}

void wait_for(const std::atomic<unsigned long> &count, unsigned long target_count) {
  for (unsigned long seen; (seen = count.load()) < target_count;) count.wait(seen);
}

// A daemon of its own thread that counts records.
class Receiver {
 public:
  Receiver() : thread_([this] { loop(); }) { wait_for(ready_, 1); }
  ~Receiver() {
    stop_ = true;
    thread_.join();
  }
  Receiver(const Receiver &) = delete;
  Receiver &operator=(const Receiver &) = delete;
  void wait_until(unsigned long records) { wait_for(records_, records); }

 private:
  void loop() {
    const BenchTask task(kReceiverPid);
    BenchDaemon daemon(kReceiverPid, kReceiverQueue);
    daemon.hello();
    ready_ = 1;
    ready_.notify_all();
    char message[8192];
    while (!stop_) {
      if (daemon.receive(message, sizeof(message), 10) <= 0 || !ends_record(message)) continue;
      if (++records_ % kRecords == 0) records_.notify_all();
    }
    daemon.quit();
  }

  std::atomic<unsigned long> ready_{0}, records_{0};
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// Times rounds of kRecords calls and the wait until all of them have arrived.
template <typename Call, typename Wait>
void run_rounds(benchmark::State &state, Call call, Wait wait) {
  unsigned long sent = 0;
  bool done = true;
  std::vector<double> times;
  for (auto _ : state) {
    const auto start = Clock::now();
    for (unsigned i = 0; i < kRecords; i++) done = call() && done;
    wait(sent += kRecords);
    const std::chrono::duration<double> time = Clock::now() - start;
    if (!done) return state.SkipWithError("something got lost");
    times.push_back(time.count() / kRecords);
    state.SetIterationTime(time.count());
  }
  report_median(state, times);
}

void records_tarn(benchmark::State &state, size_t bytes) {
  bench_kernel().install_rules({kLowerDir});
  const UserBytes user_bytes;
  Receiver receiver;
  run_rounds(
      state, [=] { return put(Way::kCaptureAlone, bytes); },
      [&](unsigned long sent) { receiver.wait_until(sent); });
}

void records_socket(benchmark::State &state, size_t bytes) {
  SocketPair pair;
  std::atomic<unsigned long> count{0};
  std::thread receiver([&] {
    static char message[kMostBytes];
    while (pair.receive(message, sizeof(message), 0) > 0) {
      if (++count % kRecords == 0) count.notify_all();
    }
  });
  run_rounds(
      state,
      [&] {
        copy(bytes);
        return pair.send(bytes);
      },
      [&](unsigned long sent) { wait_for(count, sent); });
  pair.end();
  receiver.join();
}

/* ---- further rules ---- */

constexpr size_t kRuleBytes = 100;

void capture_under(benchmark::State &state, const std::vector<std::string> &dirs) {
  BenchKernel &kernel = bench_kernel();
  kernel.install_rules(dirs);
  kernel.daemon().hello();
  const UserBytes user_bytes;
  run_batches(
      state, batch_of(kRuleBytes), [] { put(Way::kCaptureAlone, kRuleBytes); },
      [&kernel] { return kernel.daemon().drain() > 0; });
  kernel.daemon().quit();
}

void rules_hit(benchmark::State &state, size_t rules) {
  capture_under(state, std::vector<std::string>(rules, kLowerDir));
}

void rules_missed(benchmark::State &state, size_t rules) {
  std::vector<std::string> dirs;
  if (rules) dirs = bench_dirs(static_cast<unsigned>(rules));
  dirs.push_back(kLowerDir);
  capture_under(state, dirs);
}

}  // namespace

void add_capture_benchmarks() {
  for (size_t i = 0; i < kMostBytes; i++) source[i] = static_cast<char>(i * 31 + (i >> 8));
  for (const size_t bytes : {size_t{100}, size_t{4096}, size_t{65536}, kMostBytes}) {
    add_capture(bytes);
  }
  for (const size_t bytes : {100, 4096}) {
    add_manual(fmt::format("records/{}/tarn", bytes), records_tarn, bytes);
    add_manual(fmt::format("records/{}/socket", bytes), records_socket, bytes);
  }
  for (const size_t rules : {1, 2, 4, 8, 16, 32}) {
    add_manual(fmt::format("further/hit/{}", rules), rules_hit, rules);
  }
  for (const size_t rules : {0, 1, 10, 100, 1000}) {
    add_manual(fmt::format("further/miss/{}", rules), rules_missed, rules);
  }
}
