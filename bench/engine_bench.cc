// SPDX-License-Identifier: GPL-2.0
// Entries of 4 KiB through a stream, beside the client library alone: as fast as each can, in turns
// in one run; then at half the publisher's rate to one, two, four and eight replicas: how long each
// entry takes. Usage: engine_bench URL COPIES ENTRIES ROUNDS. bench/engine.py starts the servers.
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "mirrord/stream/consumer.h"
#include "mirrord/stream/nats_owner.h"
#include "mirrord/stream/publisher.h"

namespace {

using namespace tarn;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::size_t kEntry = 4096;
constexpr std::int64_t kRawPending = 4096;
constexpr double kLagSeconds = 5;

[[noreturn]] void fail(const std::string &text) {
  std::fprintf(stderr, "engine_bench: %s\n", text.c_str());
  std::exit(1);
}

void check(natsStatus status, const char *what) {
  if (status != NATS_OK) fail(std::string(what) + ": " + nats_text(status));
}

double processor_seconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval &time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/* Data that does not pack well, as that of files that are packed already. */
std::string payload_of(std::uint64_t number) {
  std::string payload(kEntry, '\0');
  std::uint64_t state = number + 1;
  for (std::size_t at = 0; at < kEntry; at += 8) {
    state = state * 6364136223846793005U + 1442695040888963407U;
    std::memcpy(payload.data() + at, &state, 8);
  }
  return payload;
}

/* A log of that many entries, a few payloads in turn; with a rate they come one after the other. */
class Source : public EntryReader {
 public:
  Source(std::uint8_t id, LogPosition entries, double per_second = 0, Clock::time_point begun = {})
      : entries_(entries), per_second_(per_second), begun_(begun) {
    epoch_.bytes.fill(id);
    for (std::uint64_t i = 0; i < 64; ++i) payloads_.push_back(payload_of(i));
  }
  const Uuid &epoch() const override { return epoch_; }
  LogPosition first() const override { return 1; }
  LogPosition end() const override {
    if (per_second_ == 0) return entries_ + 1;
    const double passed = std::chrono::duration<double>(Clock::now() - begun_).count();
    return std::min(entries_ + 1,
                    static_cast<LogPosition>(std::max(passed, 0.0) * per_second_) + 1);
  }
  Result<std::optional<LogEntry>> read(LogPosition position) override {
    if (position >= end()) return std::optional<LogEntry>();
    return std::optional<LogEntry>(
        LogEntry{position, 0, 1, std::as_bytes(std::span(payload(position)))});
  }
  void wait(LogPosition end, milliseconds time) override {
    if (end > entries_ || per_second_ == 0) return std::this_thread::sleep_for(time);
    std::this_thread::sleep_until(std::min(due(end), Clock::now() + time));
  }
  const std::string &payload(LogPosition position) const {
    return payloads_[position % payloads_.size()];
  }
  LogPosition entries() const { return entries_; }
  Clock::time_point due(LogPosition position) const {
    const std::chrono::duration<double> behind(static_cast<double>(position) / per_second_);
    return begun_ + std::chrono::duration_cast<Clock::duration>(behind);
  }

 private:
  Uuid epoch_;
  const LogPosition entries_;
  const double per_second_;
  const Clock::time_point begun_;
  std::vector<std::string> payloads_;
};

struct Figure {
  const char *name;
  double per_second = 0, processor_us = 0;
};

class Timer {
 public:
  Figure stop(const char *name, LogPosition entries) const {
    const std::chrono::duration<double> took = Clock::now() - begun_;
    const double processor = processor_seconds() - processor_;
    return {name, static_cast<double>(entries) / took.count(),
            processor * 1e6 / static_cast<double>(entries)};
  }

 private:
  const Clock::time_point begun_ = Clock::now();
  const double processor_ = processor_seconds();
};

std::unique_ptr<Engine> engine_of(Connection &connection) {
  auto engine = Engine::open(connection);
  if (!engine) fail(engine.error().text);
  if (const auto there = (*engine)->ensure_stream(); !there) fail(there.error().text);
  return std::move(*engine);
}

/* Each entry is a message. */
Figure raw_publish(Connection &connection, const Source &source) {
  const auto engine = engine_of(connection);
  jsOptions options;
  jsOptions_Init(&options);
  options.PublishAsync.MaxPending = kRawPending;
  options.PublishAsync.StallWait = 60'000;
  jsCtx *made = nullptr;
  check(natsConnection_JetStream(&made, engine->connection(), &options), "JetStream");
  const NatsOwner<jsCtx> context(made);
  const Timer timer;
  for (LogPosition at = 1; at < source.end(); ++at) {
    const std::string &payload = source.payload(at);
    check(js_PublishAsync(context.get(), engine->subject().c_str(), payload.data(),
                          static_cast<int>(payload.size()), nullptr),
          "publishing");
  }
  jsPubOptions wait;
  jsPubOptions_Init(&wait);
  wait.MaxWait = 120'000;
  check(js_PublishAsyncComplete(context.get(), &wait), "waiting for the acknowledgements");
  return timer.stop("client library, sent", source.end() - 1);
}

Figure raw_fetch(Connection &connection, const Source &source) {
  const auto engine = engine_of(connection);
  natsSubscription *made = nullptr;
  check(js_PullSubscribe(&made, engine->context(), engine->subject().c_str(), "raw", nullptr,
                         nullptr, nullptr),
        "subscribing");
  const NatsOwner<natsSubscription> subscription(made);
  const Timer timer;
  for (LogPosition left = source.end() - 1; left > 0;) {
    natsMsgList list{};
    const int count = static_cast<int>(std::min<LogPosition>(left, 256));
    check(natsSubscription_Fetch(&list, subscription.get(), count, 10'000, nullptr), "fetching");
    for (int i = 0; i < list.Count; ++i) check(natsMsg_Ack(list.Msgs[i], nullptr), "acknowledging");
    left -= static_cast<LogPosition>(list.Count);
    natsMsgList_Destroy(&list);
  }
  return timer.stop("client library, fetched", source.end() - 1);
}

StreamPublisher::Options publishing() {
  return {.run = 0,
          .keep_run = [](std::uint32_t) { return Result<void>(); },
          .say = [](const std::string &text) { std::fprintf(stderr, "%s\n", text.c_str()); }};
}

Figure publish(Connection &connection, Source &source) {
  StreamPublisher publisher(connection, source, publishing());
  const Timer timer;
  std::thread running([&] { publisher.run(); });
  while (publisher.status().position < source.end()) std::this_thread::sleep_for(milliseconds(1));
  const Figure figure = timer.stop("publisher", source.end() - 1);
  publisher.stop();
  running.join();
  return figure;
}

Figure consume(Connection &connection, const Source &source) {
  StreamConsumer consumer(connection, "replica", StreamPosition{source.epoch(), 1});
  const Timer timer;
  while (consumer.next()->position < source.end()) {
    const auto entries = consumer.fetch(milliseconds(1000));
    if (!entries) fail(entries.error().text);
    consumer.acknowledge(consumer.next()->position);
  }
  return timer.stop("consumer", source.end() - 1);
}

StreamConfig config_of(const char *url, const char *copies, const std::string &stream) {
  StreamConfig config;
  config.servers = {url};
  config.stream = stream;
  config.replicas = std::strtoull(copies, nullptr, 10);
  config.max_bytes = std::uint64_t{4} << 30;
  return config;
}

void remove_stream(Connection &connection) {
  const auto engine = engine_of(connection);
  check(js_DeleteStream(engine->context(), connection.config().stream.c_str(), nullptr, nullptr),
        "removing the stream");
}

using Lags = std::vector<double>; /* milliseconds, one for each entry */

/* Until the last entry is there. */
Lags follow(const StreamConfig &config, const std::string &name, const Source &source) {
  Connection connection(config, name);
  StreamConsumer consumer(connection, name, StreamPosition{source.epoch(), 1});
  Lags lags;
  lags.reserve(source.entries());
  while (consumer.next()->position <= source.entries()) {
    const auto entries = consumer.fetch(milliseconds(1000));
    if (!entries && entries.error().code != -ENOENT) fail(entries.error().text);
    if (!entries) std::this_thread::sleep_for(milliseconds(100));
    const auto now = Clock::now();
    for (const LogEntry &entry : entries ? *entries : std::vector<LogEntry>())
      lags.push_back(
          std::chrono::duration<double, std::milli>(now - source.due(entry.position)).count());
    if (entries) consumer.acknowledge(consumer.next()->position);
  }
  return lags;
}

/* The consumers are there before the first entry. */
void print_lags(const StreamConfig &config, LogPosition entries, double per_second, int replicas) {
  Source source(static_cast<std::uint8_t>(100 + replicas), entries, per_second,
                Clock::now() + std::chrono::seconds(2));
  Connection connection(config, "bench");
  engine_of(connection);
  std::vector<Lags> lags(static_cast<std::size_t>(replicas));
  std::vector<std::thread> following;
  for (int i = 0; i < replicas; ++i)
    following.emplace_back([&, i] {
      lags[static_cast<std::size_t>(i)] = follow(config, "replica" + std::to_string(i), source);
    });
  StreamPublisher publisher(connection, source, publishing());
  const Timer timer;
  std::thread running([&] { publisher.run(); });
  for (std::thread &thread : following) thread.join();
  const Figure figure = timer.stop("", entries);
  publisher.stop();
  running.join();
  Lags all;
  for (const Lags &of_one : lags) all.insert(all.end(), of_one.begin(), of_one.end());
  std::sort(all.begin(), all.end());
  std::printf(
      "%d replica%s %8.0f entries/s: lag %7.1f ms, 99 of 100 below %7.1f ms, %8.1f us of a "
      "processor each\n",
      replicas, replicas > 1 ? "s" : " ", per_second, all[all.size() / 2],
      all[all.size() * 99 / 100], figure.processor_us);
  remove_stream(connection);
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 5) fail("usage: engine_bench URL COPIES ENTRIES ROUNDS");
  const LogPosition entries = std::strtoull(argv[3], nullptr, 10);
  const int rounds = std::atoi(argv[4]);
  std::vector<std::vector<Figure>> all(4);
  for (int round = 0; round < rounds; ++round) {
    Source source(static_cast<std::uint8_t>(round + 1), entries);
    Connection raw(config_of(argv[1], argv[2], "raw"), "bench");
    all[0].push_back(raw_publish(raw, source));
    all[1].push_back(raw_fetch(raw, source));
    remove_stream(raw);
    Connection ours(config_of(argv[1], argv[2], "ours"), "bench");
    all[2].push_back(publish(ours, source));
    all[3].push_back(consume(ours, source));
    remove_stream(ours);
  }
  for (std::vector<Figure> &figures : all) {
    const auto middle = figures.begin() + static_cast<std::ptrdiff_t>(figures.size() / 2);
    std::nth_element(figures.begin(), middle, figures.end(),
                     [](const Figure &a, const Figure &b) { return a.per_second < b.per_second; });
    std::printf("%-26s %10.0f entries/s %8.1f us of a processor each\n", middle->name,
                middle->per_second, middle->processor_us);
  }
  const double half = all[2][all[2].size() / 2].per_second / 2;
  const auto of_seconds = static_cast<LogPosition>(half * kLagSeconds);
  for (const int replicas : {1, 2, 4, 8})
    print_lags(config_of(argv[1], argv[2], "lag"), of_seconds, half, replicas);
  return 0;
}
