// SPDX-License-Identifier: GPL-2.0
#include "tests/mirrord/nats_kit.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

/* The client library loses the message that it is reading when a connection ends. */
extern "C" const char *__lsan_default_suppressions() {
  return "leak:natsBuf_Create\n";
}

namespace tarn::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::chrono::seconds kDeadline{60};

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

UniqueFd connect_to(int port) {
  UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in address = loopback(port);
  if (connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0)
    return UniqueFd();
  return fd;
}

}  // namespace

bool eventually(const std::function<bool()> &holds) {
  const auto end = steady_clock::now() + kDeadline;
  while (!holds()) {
    if (steady_clock::now() > end) return false;
    std::this_thread::sleep_for(milliseconds(10));
  }
  return true;
}

Scratch::Scratch() : path_(fs::temp_directory_path() / "tarn-stream-XXXXXX") {
  if (!mkdtemp(path_.data())) throw std::runtime_error("mkdtemp");
}

Scratch::~Scratch() {
  std::error_code error;
  fs::remove_all(path_, error);
}

NatsServer::NatsServer(std::string settings) : settings_(std::move(settings)) {
  fs::create_directory(scratch_ / "ports");
  start();
}

NatsServer::~NatsServer() {
  kill();
}

void NatsServer::start() {
  const std::string file = scratch_ / "conf", ports = scratch_ / "ports";
  std::ofstream(file) << "listen: \"127.0.0.1:" << port_ << "\"\nports_file_dir: \"" << ports
                      << "\"\njetstream { store_dir: \"" << store()
                      << "\", max_file_store: 1GB, max_memory_store: 1MB }\n"
                      << settings_ << "\n";
  const std::string log = scratch_ / "server.log";
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    dup2(out, 1);
    dup2(out, 2);
    execlp("nats-server", "nats-server", "-c", file.c_str(), nullptr);
    execl("/usr/sbin/nats-server", "nats-server", "-c", file.c_str(), nullptr);
    _exit(127);
  }
  const auto mine = [&] {
    for (const auto &entry : fs::directory_iterator(ports)) {
      if (entry.path().string().find("_" + std::to_string(pid_) + ".") == std::string::npos)
        continue;
      std::ifstream in(entry.path());
      const auto json = nlohmann::json::parse(in, nullptr, false);
      if (!json.is_object() || !json.contains("nats")) return false;
      const std::string url = json["nats"][0];
      port_ = std::stoi(url.substr(url.rfind(':') + 1));
      return static_cast<bool>(connect_to(port_));
    }
    return false;
  };
  if (eventually(mine)) return;
  std::ifstream in(log);
  throw std::runtime_error("nats-server: " + std::string(std::istreambuf_iterator<char>(in), {}));
}

void NatsServer::kill() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

StreamConfig NatsServer::config() const {
  StreamConfig config;
  config.servers = {url()};
  config.stream = "data";
  config.max_bytes = 64 << 20;
  return config;
}

Wire::Wire(const NatsServer &server)
    : server_port_(std::stoi(server.port())),
      listening_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)),
      left_(std::numeric_limits<std::int64_t>::max()) {
  sockaddr_in address = loopback(0);
  socklen_t size = sizeof(address);
  auto *const raw = reinterpret_cast<sockaddr *>(&address);
  if (bind(listening_.get(), raw, size) != 0 || listen(listening_.get(), 16) != 0 ||
      getsockname(listening_.get(), raw, &size) != 0)
    throw std::runtime_error("a port");
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { run(); });
}

Wire::~Wire() {
  stop_ = true;
  thread_.join();
}

void Wire::run() {
  struct Pair {
    UniqueFd client, server;
  };
  std::vector<std::unique_ptr<Pair>> pairs;
  std::vector<char> buffer(4096);
  while (!stop_) {
    std::vector<pollfd> waits{{listening_.get(), POLLIN, 0}};
    for (const auto &pair : pairs) {
      waits.push_back({pair->client.get(), POLLIN, 0});
      waits.push_back({pair->server.get(), POLLIN, 0});
    }
    if (poll(waits.data(), waits.size(), 20) <= 0) continue;
    bool all = false;
    std::size_t ended = pairs.size();
    for (std::size_t i = 0; i < pairs.size() && !all; ++i) {
      for (const bool up : {true, false}) {
        if (waits[1 + 2 * i + (up ? 0 : 1)].revents == 0) continue;
        const int from = up ? pairs[i]->client.get() : pairs[i]->server.get();
        const int to = up ? pairs[i]->server.get() : pairs[i]->client.get();
        const ssize_t got = recv(from, buffer.data(), buffer.size(), 0);
        if (got <= 0 || send(to, buffer.data(), static_cast<std::size_t>(got), MSG_NOSIGNAL) != got)
          ended = i;
        else if ((left_ -= got) < 0)
          all = true;
      }
    }
    if (all) {
      pairs.clear();
      left_ = std::numeric_limits<std::int64_t>::max();
      ++cuts_;
    } else if (ended < pairs.size()) {
      pairs.erase(pairs.begin() + static_cast<std::ptrdiff_t>(ended));
    }
    if (waits[0].revents == 0) continue;
    auto pair = std::make_unique<Pair>();
    pair->client = UniqueFd(accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    pair->server = connect_to(server_port_);
    if (pair->client && pair->server) pairs.push_back(std::move(pair));
  }
}

Entries::Entries(std::uint8_t id, std::uint8_t kind) : kind_(kind) {
  epoch_.bytes.fill(id);
}

LogPosition Entries::first() const {
  MutexLock lock(mutex_);
  return first_;
}

LogPosition Entries::end() const {
  MutexLock lock(mutex_);
  return payloads_.size() + 1;
}

Result<std::optional<LogEntry>> Entries::read(LogPosition position) {
  MutexLock lock(mutex_);
  position = std::max(position, first_);
  if (position > payloads_.size()) return std::optional<LogEntry>();
  read_ = payloads_[position - 1];
  return std::optional<LogEntry>(LogEntry{position, static_cast<std::int64_t>(position), kind_,
                                          std::as_bytes(std::span(read_))});
}

void Entries::wait(LogPosition end, milliseconds time) {
  MutexLock lock(mutex_);
  if (payloads_.size() + 1 <= end) changed_.wait_for(lock, time);
}

void Entries::append(int count, std::size_t size) {
  MutexLock lock(mutex_);
  for (; count > 0; --count) {
    std::string payload =
        "entry " + std::to_string(payloads_.size() + 1) + "/" + std::to_string(generation_) + " ";
    std::uint64_t state = payloads_.size() + 1;
    while (payload.size() < size) {
      state = state * 6364136223846793005U + 1442695040888963407U;
      payload += static_cast<char>('!' + (state >> 58));
    }
    payloads_.push_back(std::move(payload));
  }
  changed_.notify_all();
}

void Entries::release(LogPosition first) {
  MutexLock lock(mutex_);
  first_ = first;
}

void Entries::cut(LogPosition end, int generation) {
  MutexLock lock(mutex_);
  payloads_.resize(end - 1);
  generation_ = generation;
}

std::string Entries::payload(LogPosition position) const {
  MutexLock lock(mutex_);
  return payloads_.at(position - 1);
}

Admin::Admin(const NatsServer &server) : connection_(server.config(), "admin") {
  EXPECT_TRUE(eventually([&] {
    auto engine = Engine::open(connection_);
    if (engine) engine_ = std::move(*engine);
    return engine_ != nullptr;
  }));
}

void Admin::lose(const Entries &entries, LogPosition position) {
  const auto from = engine_->find(entries.epoch(), position);
  const auto extent = engine_->extent();
  ASSERT_TRUE(from && extent);
  const auto found = engine_->at(*from, extent->last);
  ASSERT_TRUE(found && *found);
  ASSERT_EQ(js_DeleteMsg(engine_->context(), connection_.config().stream.c_str(),
                         (*found)->sequence, nullptr, nullptr),
            NATS_OK);
}

StreamPosition begin_of(const Entries &entries, LogPosition position, std::uint32_t run) {
  return {stream_epoch(entries.epoch(), run), position};
}

Publishing::Publishing(StreamConfig config, Entries &entries, std::uint32_t run,
                       LogPosition log_end)
    : entries_(entries), connection_(std::move(config), "source"), kept_run_(run) {
  publisher_ = std::make_unique<StreamPublisher>(
      connection_, entries_,
      StreamPublisher::Options{.run = run,
                               .log_end = log_end,
                               .keep_run = [this](std::uint32_t kept) -> Result<void> {
                                 kept_run_ = kept;
                                 return {};
                               },
                               .say =
                                   [this](const std::string &text) {
                                     MutexLock lock(mutex_);
                                     said_.push_back(text);
                                   },
                               .patience = milliseconds(300)});
  thread_ = std::thread([this] { publisher_->run(); });
}

Publishing::~Publishing() {
  publisher_->stop();
  thread_.join();
}

std::vector<std::string> Publishing::said() const {
  MutexLock lock(mutex_);
  return said_;
}

bool Publishing::done() {
  return eventually([this] {
    const auto status = publisher_->status();
    return status.state == StreamPublisher::State::kFollowing && status.position == entries_.end();
  });
}

std::vector<LogPosition> consume(StreamConsumer &consumer, const Entries &entries,
                                 LogPosition end) {
  std::vector<LogPosition> taken;
  std::string error;
  const bool came = eventually([&] {
    const auto fetched = consumer.fetch(milliseconds(50));
    if (!fetched) {
      error = fetched.error().text;
      return consumer.hole().has_value();
    }
    for (const LogEntry &entry : *fetched) {
      const std::string payload(reinterpret_cast<const char *>(entry.payload.data()),
                                entry.payload.size());
      EXPECT_EQ(payload, entries.payload(entry.position));
      taken.push_back(entry.position);
    }
    return consumer.next() && consumer.next()->position >= end;
  });
  EXPECT_TRUE(came) << "last error: " << error;
  return taken;
}

std::vector<LogPosition> range(LogPosition first, LogPosition end) {
  std::vector<LogPosition> all;
  for (; first < end; ++first) all.push_back(first);
  return all;
}

}  // namespace tarn::test
