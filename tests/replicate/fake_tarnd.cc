// SPDX-License-Identifier: GPL-2.0
#include "tests/replicate/fake_tarnd.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <stdexcept>

#include <fmt/format.h>

#include "base/run_dir.h"
#include "module/os_public/Include/ox_ctl.h"
#include "module/os_public/Include/ox_msg.h"

namespace tarn::test {
namespace {

template <class T>
std::string bytes_of(const T &record) {
  return {reinterpret_cast<const char *>(&record), sizeof(record)};
}

UniqueFd listen_in(const std::string &run_dir, const std::string &name) {
  auto listener = listen_socket(run_dir, name);
  if (!listener) throw std::runtime_error(listener.error().text);
  return std::move(*listener);
}

}  // namespace

TemporaryDirectory::TemporaryDirectory() {
  const char *base = std::getenv("TMPDIR");
  path_ = std::string(base ? base : "/tmp") + "/tarn-test.XXXXXX";
  if (!mkdtemp(path_.data())) throw std::runtime_error("cannot make a directory");
  path_ = std::filesystem::canonical(path_).string();
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

FakeTarnd::FakeTarnd(const std::string &run_dir) : run_dir_(run_dir) {
  std::filesystem::create_directories(run_dir);
  control_ = listen_in(run_dir, OX_CTL_SOCKET);
  daemon_ = listen_in(run_dir, OX_CTL_DAEMON_SOCKET);
  control_loop_ = std::thread([this] { accept_loop(control_.get(), &FakeTarnd::serve_control); });
  daemon_loop_ = std::thread([this] { accept_loop(daemon_.get(), &FakeTarnd::serve_daemon); });
}

FakeTarnd::~FakeTarnd() {
  {
    const MutexLock lock(mutex_);
    ending_ = true;
    shutdown(control_.get(), SHUT_RDWR);
    shutdown(daemon_.get(), SHUT_RDWR);
    for (const UniqueFd &connection : connections_) shutdown(connection.get(), SHUT_RDWR);
  }
  control_loop_.join();
  daemon_loop_.join();
  for (std::thread &connection : threads_) connection.join();
}

void FakeTarnd::accept_loop(int listener, void (FakeTarnd::*serve)(int)) {
  for (;;) {
    const int socket = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0 && errno == EINTR) continue;
    const MutexLock lock(mutex_);
    if (socket < 0) return;
    connections_.emplace_back(socket);
    if (ending_) return;
    threads_.emplace_back([this, socket, serve] { (this->*serve)(socket); });
  }
}

void FakeTarnd::reply(int socket, int result, std::uint64_t total, const std::string &bytes) {
  ox_ctl_reply head{};
  head.result = result;
  head.len = static_cast<ox_u32_t>(bytes.size());
  head.total = total;
  const std::string packet = bytes_of(head) + bytes;
  ::send(socket, packet.data(), packet.size(), MSG_NOSIGNAL);
}

void FakeTarnd::reply_in_pieces(int socket, const std::string &bytes) {
  std::size_t at = 0;
  do {
    const std::string part = bytes.substr(at, OX_CTL_PACKET_MAX - sizeof(ox_ctl_reply));
    reply(socket, 0, bytes.size(), part);
    at += part.size();
  } while (at < bytes.size());
}

void FakeTarnd::serve_control(int socket) {
  std::string packet(OX_CTL_PACKET_MAX, '\0');
  for (;;) {
    const ssize_t got = recv(socket, packet.data(), packet.size(), 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return;
    answer_control(socket, packet.substr(0, static_cast<std::size_t>(got)));
  }
}

void FakeTarnd::answer_control(int socket, const std::string &packet) {
  ox_ctl_request request;
  std::memcpy(&request, packet.data(), sizeof(request));
  const std::string argument = packet.substr(sizeof(request));
  const MutexLock lock(mutex_);
  changed_.notify_all();
  switch (request.op) {
    case OX_CTL_SETSOCKOPT:
      return reply(socket, state_.set_option(request.arg, argument), 0, "");
    case OX_CTL_GETSOCKOPT: {
      std::string buffer = argument;
      const int result = state_.get_option(request.arg, buffer, request.room);
      if (result != 0) return reply(socket, result, 0, "");
      return reply_in_pieces(socket, buffer);
    }
    case OX_CTL_MOUNT: {
      const std::string lower = argument.c_str(), at = argument.substr(lower.size() + 1).c_str();
      for (const auto &mount : state_.mounts) {
        if (mount.second == at) return reply(socket, -EBUSY, 0, "something is mounted at " + at);
      }
      state_.mounts.emplace_back(lower, at);
      state_.cache_ms = request.arg;
      return reply(socket, 0, 0, "");
    }
    case OX_CTL_UMOUNT: {
      const std::string at = argument.c_str();
      const bool found =
          std::erase_if(state_.mounts, [&](const auto &m) { return m.second == at; }) != 0;
      return reply(socket, found ? 0 : -EINVAL, 0, found ? "" : "nothing is mounted at " + at);
    }
    case OX_CTL_LOG: {
      std::string lines;
      for (std::size_t n = request.room; n < state_.log.size(); ++n) {
        const ox_ctl_logline line{n, kTime + n, static_cast<ox_u32_t>(n % 8),
                                  static_cast<ox_u32_t>(state_.log[n].size())};
        lines += bytes_of(line) + state_.log[n];
      }
      return reply(socket, 0, state_.log.size(), lines);
    }
    case OX_CTL_MOUNTS: {
      std::string text;
      for (const auto &mount : state_.mounts)
        text += escaped(mount.first) + " " + escaped(mount.second) + " rw\n";
      return reply_in_pieces(socket, text);
    }
  }
  reply(socket, -EINVAL, 0, "");
}

void FakeTarnd::serve_daemon(int socket) {
  {
    const MutexLock lock(mutex_);
    daemon_connection_ = socket;
  }
  std::string packet(1 << 16, '\0');
  for (;;) {
    const ssize_t got = recv(socket, packet.data(), packet.size(), 0);
    if (got < 0 && errno == EINTR) continue;
    const MutexLock lock(mutex_);
    if (got <= 0 && daemon_connection_ == socket) daemon_connection_ = -1;
    if (got <= 0) shutdown(socket, SHUT_RDWR);  // as tarnd, which has nothing more to send
    if (got <= 0) return;
    std::uint16_t type = 0, flags = 0;
    std::memcpy(&type, packet.data() + 4, sizeof(type));
    std::memcpy(&flags, packet.data() + 6, sizeof(flags));
    const std::string payload = packet.substr(16, static_cast<std::size_t>(got) - 16);
    state_.received.push_back(type);
    if (type == OX_NL_HELO) {
      state_.registered = true;
      state_.hello_flags = flags;
    }
    if (type == OX_NL_QUIT) state_.registered = false;
    changed_.notify_all();
    const bool request = type == OX_SO_REP_ADD || type == OX_SO_REP_DEL || type == OX_SO_REP_FLUSH;
    if (!request || !state_.registered || !state_.answers) continue;
    const Packet answer = test::reply(type, state_.set_option(type, payload));
    ::send(socket, answer.data(), answer.size(), MSG_NOSIGNAL);
  }
}

void FakeTarnd::send(const Packet &packet) {
  int socket;
  {
    const MutexLock lock(mutex_);
    socket = daemon_connection_;
  }
  ::send(socket, packet.data(), packet.size(), MSG_NOSIGNAL);
}

void FakeTarnd::send(const std::vector<Packet> &packets) {
  for (const Packet &packet : packets) send(packet);
}

void FakeTarnd::close_daemon_channel() {
  const MutexLock lock(mutex_);
  shutdown(daemon_connection_, SHUT_RDWR);
}

}  // namespace tarn::test
