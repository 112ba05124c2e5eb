// SPDX-License-Identifier: GPL-2.0
#include "tarnd/channel/control.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <optional>
#include <span>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "base/text.h"
#include "module/os_public/Include/ox_ctl.h"
#include "tarnd/channel/peer.h"
#include "ukern/door/uk_core.h"
#include "ukern/door/uk_fs.h"
#include "ukern/door/uk_net.h"

namespace tarnd {

using tarn::Error;
using tarn::Result;

static constexpr size_t kReplyMax = OX_CTL_PACKET_MAX - sizeof(ox_ctl_reply);
// The largest option buffer, enough for some 16000 rules.
static constexpr unsigned long long kRoomMax = 256ull << 20;
static constexpr unsigned kLogSliceMs = 200;

namespace {

struct Request {
  ox_ctl_request head;
  std::vector<char> argument;
};

// Serves the requests of one connection.
class Session {
 public:
  Session(int connection, const Identity &peer, MountTable *mounts,
          const std::atomic<bool> *stopping)
      : connection_(connection), mounts_(mounts), stopping_(stopping), peer_(peer), task_(peer_) {}

  void run();

 private:
  std::optional<Request> receive();
  void reply(int result, unsigned long long total = 0, std::span<const char> bytes = {});
  void reply_in_pieces(std::span<const char> bytes);
  void reply_done(const Result<void> &done);
  void serve(Request &request);
  void set_option(Request &request);
  void get_option(Request &request);
  void mount(const Request &request);
  void unmount(const Request &request);
  void read_log(const Request &request);
  void list_mounts();
  bool wait_for_log(unsigned long long from, unsigned wait_ms, uk_klog_line *line, char *text,
                    size_t size) const;

  const int connection_;
  MountTable *const mounts_;
  const std::atomic<bool> *const stopping_;
  const Identity peer_;
  const Task task_;
  bool alive_ = true;
};

}  // namespace

// A malformed packet becomes a request with op 0, which is unknown.
std::optional<Request> Session::receive() {
  std::vector<char> packet(OX_CTL_PACKET_MAX);
  ssize_t n;
  do {
    n = recv(connection_, packet.data(), packet.size(), MSG_TRUNC);
  } while (n < 0 && errno == EINTR);
  if (n <= 0) return std::nullopt;

  Request request{};
  const size_t size = static_cast<size_t>(n);
  if (size < sizeof(request.head) || size > packet.size()) return request;
  std::memcpy(&request.head, packet.data(), sizeof(request.head));
  if (request.head.len != size - sizeof(request.head)) request.head.op = 0;
  request.argument.assign(packet.begin() + sizeof(request.head),
                          packet.begin() + static_cast<ptrdiff_t>(size));
  return request;
}

void Session::reply(int result, unsigned long long total, std::span<const char> bytes) {
  ox_ctl_reply head{};
  head.result = result;
  head.len = static_cast<ox_u32_t>(bytes.size());
  head.total = total;
  iovec parts[2] = {{&head, sizeof(head)}, {const_cast<char *>(bytes.data()), bytes.size()}};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = 2;
  ssize_t n;
  do {
    n = sendmsg(connection_, &message, MSG_NOSIGNAL);
  } while (n < 0 && errno == EINTR);
  if (n < 0) alive_ = false;
}

void Session::reply_in_pieces(std::span<const char> bytes) {
  const size_t total = bytes.size();
  do {
    const auto part = bytes.first(std::min(bytes.size(), kReplyMax));
    reply(0, total, part);
    bytes = bytes.subspan(part.size());
  } while (alive_ && !bytes.empty());
}

void Session::reply_done(const Result<void> &done) {
  if (done) return reply(0);
  const std::string text = done.error().text.substr(0, kReplyMax);
  reply(done.error().code, text.size(), text);
}

void Session::run() {
  while (alive_) {
    std::optional<Request> request = receive();
    if (!request) return;
    serve(*request);
  }
}

void Session::serve(Request &request) {
  switch (request.head.op) {
    case OX_CTL_SETSOCKOPT:
      return set_option(request);
    case OX_CTL_GETSOCKOPT:
      return get_option(request);
    case OX_CTL_MOUNT:
      return mount(request);
    case OX_CTL_UMOUNT:
      return unmount(request);
    case OX_CTL_LOG:
      return read_log(request);
    case OX_CTL_MOUNTS:
      return list_mounts();
    default:
      return reply(-EINVAL);
  }
}

namespace {

// Registers a buffer as user memory of the current task.
class UserMemory {
 public:
  UserMemory(void *start, size_t len) : start_(len ? start : nullptr) {
    if (start_) err_ = uk_user_add(start_, len);
  }
  ~UserMemory() {
    if (start_ && err_ == 0) uk_user_del(start_);
  }
  UserMemory(const UserMemory &) = delete;
  UserMemory &operator=(const UserMemory &) = delete;

  int err() const { return err_; }

 private:
  void *const start_;
  int err_ = 0;
};

}  // namespace

void Session::set_option(Request &request) {
  std::vector<char> &value = request.argument;
  const ActAs act(task_);
  const UserMemory user(value.data(), value.size());
  reply(user.err() ? user.err()
                   : uk_setsockopt(PF_INET, request.head.arg, value.data(),
                                   static_cast<unsigned>(value.size())));
}

void Session::get_option(Request &request) {
  if (request.head.room > kRoomMax) return reply(-ENOMEM);
  std::vector<char> &buffer = request.argument;
  int len = static_cast<int>(buffer.size());
  // The module refuses other peers: do not allocate for them.
  if (is_privileged(peer_) && buffer.size() < request.head.room) buffer.resize(request.head.room);

  int result;
  {
    const ActAs act(task_);
    const UserMemory user(buffer.data(), buffer.size());
    result =
        user.err() ? user.err() : uk_getsockopt(PF_INET, request.head.arg, buffer.data(), &len);
  }
  if (result != 0) return reply(result);
  if (len < 0 || static_cast<size_t>(len) > buffer.size()) return reply(-EFAULT);

  reply_in_pieces(std::span<const char>(buffer).first(static_cast<size_t>(len)));
}

// Splits an argument into its NUL-terminated strings; empty if it is malformed.
static std::vector<std::string> strings_of(const std::vector<char> &argument) {
  if (argument.empty() || argument.back() != '\0') return {};
  std::vector<std::string> out;
  for (size_t at = 0; at < argument.size(); at += out.back().size() + 1)
    out.emplace_back(argument.data() + at);
  return out;
}

static bool is_absolute(const std::string &path) {
  return !path.empty() && path[0] == '/';
}

void Session::mount(const Request &request) {
  if (!is_privileged(peer_))
    return reply_done(Error{-EPERM, "only root and the user that runs tarnd may mount"});
  const std::vector<std::string> paths = strings_of(request.argument);
  if (paths.size() != 2 || !is_absolute(paths[0]) || !is_absolute(paths[1]))
    return reply_done(Error{-EINVAL, "a mount needs two absolute paths"});
  if (request.head.arg < 0 || request.head.arg > OX_CTL_CACHE_MAX)
    return reply_done(Error{-EINVAL, "names and attributes are kept for an hour at most"});
  reply_done(mounts_->mount(paths[0], paths[1], std::chrono::milliseconds(request.head.arg)));
}

void Session::unmount(const Request &request) {
  if (!is_privileged(peer_))
    return reply_done(Error{-EPERM, "only root and the user that runs tarnd may unmount"});
  const std::vector<std::string> paths = strings_of(request.argument);
  if (paths.size() != 1 || !is_absolute(paths[0]))
    return reply_done(Error{-EINVAL, "an unmount needs one absolute path"});
  reply_done(
      mounts_->unmount(paths[0], request.head.arg == 1 ? Detach::kLazily : Detach::kOnlyIdle));
}

// Waits in slices, so that a long wait does not delay the end of the program.
bool Session::wait_for_log(unsigned long long from, unsigned wait_ms, uk_klog_line *line,
                           char *text, size_t size) const {
  for (;;) {
    const unsigned slice = std::min(wait_ms, kLogSliceMs);
    if (uk_klog_read(from, slice, line, text, size)) return true;
    wait_ms -= slice;
    if (wait_ms == 0 || *stopping_) return false;
  }
}

void Session::read_log(const Request &request) {
  unsigned wait_ms = request.head.arg > 0 ? static_cast<unsigned>(request.head.arg) : 0;
  unsigned long long next = request.head.room;
  std::vector<char> lines;
  std::vector<char> text(kReplyMax - sizeof(ox_ctl_logline) + 1);
  uk_klog_line line;
  while (wait_for_log(next, wait_ms, &line, text.data(), text.size())) {
    wait_ms = 0;
    ox_ctl_logline head{};
    head.number = line.number;
    head.us = line.us;
    head.level = line.level;
    head.len = static_cast<ox_u32_t>(std::min<size_t>(line.len, text.size() - 1));
    if (lines.size() + sizeof(head) + head.len > kReplyMax) break;
    const char *bytes = reinterpret_cast<const char *>(&head);
    lines.insert(lines.end(), bytes, bytes + sizeof(head));
    lines.insert(lines.end(), text.data(), text.data() + head.len);
    next = line.number + 1;
  }
  reply(0, next, lines);
}

// The module appends the lower directory to the options without escaping.
std::string to_mount_line(const std::string &line) {
  constexpr std::string_view kEnd = " 0 0";
  std::istringstream words(line);
  std::string source, place, type;
  words >> source >> place >> type >> std::ws;
  if (type != "tarn") return {};
  std::string options(std::istreambuf_iterator<char>(words), {});
  if (options.ends_with(kEnd)) options.resize(options.size() - kEnd.size());
  return fmt::format("{} {} {}\n", source, place, tarn::escape_octal(options, " \t\n\\"));
}

void Session::list_mounts() {
  std::string table;
  int err = 0;
  {
    const ActAs act(task_);
    std::vector<char> line(4096);
    for (unsigned index = 0; err == 0;) {
      err = uk_fs_mount_line(index, line.data(), line.size());
      if (err == 0) {
        table += to_mount_line(line.data());
        index++;
      } else if (err == -ERANGE) {
        line.resize(2 * line.size());
        err = 0;
      }
    }
  }
  if (err != -ENOENT) return reply(err);
  reply_in_pieces(table);
}

void Control::serve(int connection, const Identity &peer) {
  Session(connection, peer, mounts_, &stopping_).run();
}

}  // namespace tarnd
