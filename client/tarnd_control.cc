// SPDX-License-Identifier: GPL-2.0
// Configuration of the module in tarnd: requests and answers on a socket of the run directory.
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "base/run_dir.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "client/control_link.h"
#include "module/os_public/Include/ox_ctl.h"

namespace tarn {
namespace {

std::span<const std::byte> bytes_of(const std::string &text) {
  return std::as_bytes(std::span(text));
}

/* "LOWER MOUNTPOINT OPTIONS\n" per mount. */
std::vector<Mount> read_mounts(std::string_view text) {
  std::vector<Mount> mounts;
  while (!text.empty()) {
    std::string_view line = take_until(text, '\n');
    Mount mount;
    for (std::string *field : {&mount.lower, &mount.mountpoint, &mount.options})
      *field = unescape_octal(take_until(line, ' '));
    mounts.push_back(std::move(mount));
  }
  return mounts;
}

Error protocol_error(const std::string &what) {
  return {-EPROTO,
          fmt::format("tarnd's answer makes no sense ({}): tarn and tarnd must be of one version",
                      what)};
}

class TarndControl : public ControlLink {
 public:
  explicit TarndControl(UniqueFd socket) : socket_(std::move(socket)) {}

  Result<int> set_option(int code, std::span<const std::byte> argument) override;
  Result<Option> get_option(int code, std::span<const std::byte> argument,
                            std::uint64_t room) override;
  Result<void> mount(const std::string &lower, const std::string &mountpoint,
                     std::optional<std::chrono::milliseconds> cache) override;
  Result<void> umount(const std::string &mountpoint, Umount how) override;
  Result<std::vector<Mount>> mounts() override;
  Result<LogPart> log(std::uint64_t first, std::chrono::milliseconds wait) override;

 private:
  struct Answer {
    int result = 0;
    std::uint64_t total = 0;
    std::vector<std::byte> bytes;
  };
  Result<void> send(std::uint32_t op, std::int32_t arg, std::uint64_t room,
                    std::span<const std::byte> argument);
  Result<Answer> receive();
  Result<std::vector<std::byte>> receive_rest(Answer first);
  Result<Answer> ask(std::uint32_t op, std::int32_t arg, std::uint64_t room,
                     std::span<const std::byte> argument);
  Result<void> ask_mount(std::uint32_t op, std::int32_t arg, const std::string &argument,
                         const std::string &what);

  UniqueFd socket_;
};

Result<void> TarndControl::send(std::uint32_t op, std::int32_t arg, std::uint64_t room,
                                std::span<const std::byte> argument) {
  ox_ctl_request request{};
  request.op = op;
  request.arg = arg;
  request.room = room;
  request.len = static_cast<ox_u32_t>(argument.size());
  if (sizeof(request) + argument.size() > OX_CTL_PACKET_MAX)
    return Error{-E2BIG,
                 fmt::format("a request of {} bytes is too long for tarnd", argument.size())};
  iovec parts[] = {{&request, sizeof(request)},
                   {const_cast<std::byte *>(argument.data()), argument.size()}};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = 2;
  while (sendmsg(socket_.get(), &message, MSG_NOSIGNAL) < 0) {
    if (errno == EPIPE || errno == ECONNRESET)
      return Error{-EPIPE, "tarnd has closed the connection: it may have ended"};
    if (errno != EINTR) return system_error(errno, "cannot send a request to tarnd");
  }
  return {};
}

Result<TarndControl::Answer> TarndControl::receive() {
  std::vector<std::byte> packet(OX_CTL_PACKET_MAX);
  ssize_t got;
  do {
    got = recv(socket_.get(), packet.data(), packet.size(), MSG_TRUNC);
  } while (got < 0 && errno == EINTR);
  // A reset: it has not read the request either.
  if (got < 0 && errno != ECONNRESET) return system_error(errno, "cannot receive tarnd's answer");
  if (got <= 0)
    return Error{-EPIPE, "tarnd closed the connection before it answered: it may have ended"};
  const auto size = static_cast<std::size_t>(got);
  ox_ctl_reply reply;
  if (size < sizeof(reply)) return protocol_error(fmt::format("{} bytes", size));
  std::memcpy(&reply, packet.data(), sizeof(reply));
  if (size > packet.size() || size != sizeof(reply) + reply.len)
    return protocol_error(
        fmt::format("{} bytes that call themselves {}", size, sizeof(reply) + reply.len));
  packet.resize(size);
  packet.erase(packet.begin(), packet.begin() + sizeof(reply));
  return Answer{reply.result, reply.total, std::move(packet)};
}

/* All bytes of an answer in several packets, the first of which is `first`. */
Result<std::vector<std::byte>> TarndControl::receive_rest(Answer first) {
  std::vector<std::byte> bytes = std::move(first.bytes);
  while (bytes.size() < first.total) {
    const auto more = receive();
    if (!more) return more.error();
    if (more->bytes.empty() || more->bytes.size() > first.total - bytes.size())
      return protocol_error(fmt::format("a piece of {} bytes", more->bytes.size()));
    bytes.insert(bytes.end(), more->bytes.begin(), more->bytes.end());
  }
  return bytes;
}

Result<TarndControl::Answer> TarndControl::ask(std::uint32_t op, std::int32_t arg,
                                               std::uint64_t room,
                                               std::span<const std::byte> argument) {
  if (auto sent = send(op, arg, room, argument); !sent) return sent.error();
  return receive();
}

Result<int> TarndControl::set_option(int code, std::span<const std::byte> argument) {
  auto answer = ask(OX_CTL_SETSOCKOPT, code, argument.size(), argument);
  if (!answer) return answer.error();
  return answer->result;
}

Result<TarndControl::Option> TarndControl::get_option(int code, std::span<const std::byte> argument,
                                                      std::uint64_t room) {
  auto answer = ask(OX_CTL_GETSOCKOPT, code, room, argument);
  if (!answer) return answer.error();
  if (answer->total > room)
    return protocol_error(fmt::format("{} bytes for {}", answer->total, room));
  if (answer->result != 0) return Option{answer->result, std::move(answer->bytes)};
  auto bytes = receive_rest(std::move(*answer));
  if (!bytes) return bytes.error();
  return Option{0, std::move(*bytes)};
}

Result<void> TarndControl::ask_mount(std::uint32_t op, std::int32_t arg,
                                     const std::string &argument, const std::string &what) {
  auto answer = ask(op, arg, 0, bytes_of(argument));
  if (!answer) return answer.error();
  if (answer->result == 0) return {};
  const std::string text(reinterpret_cast<const char *>(answer->bytes.data()),
                         answer->bytes.size());
  if (text.empty()) return system_error(-answer->result, what);
  return Error{answer->result, text};
}

Result<void> TarndControl::mount(const std::string &lower, const std::string &mountpoint,
                                 std::optional<std::chrono::milliseconds> cache) {
  std::string argument = lower;
  argument.append(1, '\0').append(mountpoint).append(1, '\0');
  const auto time = cache.value_or(std::chrono::milliseconds(OX_CTL_CACHE_DEFAULT));
  return ask_mount(OX_CTL_MOUNT, static_cast<std::int32_t>(time.count()), argument,
                   "cannot mount at " + printable(mountpoint));
}

Result<void> TarndControl::umount(const std::string &mountpoint, Umount how) {
  std::string argument = mountpoint;
  argument.append(1, '\0');
  return ask_mount(OX_CTL_UMOUNT, how == Umount::kLazily ? 1 : 0, argument,
                   "cannot unmount " + printable(mountpoint));
}

Result<std::vector<Mount>> TarndControl::mounts() {
  auto answer = ask(OX_CTL_MOUNTS, 0, 0, {});
  if (!answer) return answer.error();
  if (answer->result != 0) return system_error(-answer->result, "cannot read tarnd's mount table");
  const auto table = receive_rest(std::move(*answer));
  if (!table) return table.error();
  return read_mounts({reinterpret_cast<const char *>(table->data()), table->size()});
}

Result<LogPart> TarndControl::log(std::uint64_t first, std::chrono::milliseconds wait) {
  auto answer = ask(OX_CTL_LOG, static_cast<std::int32_t>(wait.count()), first, {});
  if (!answer) return answer.error();
  if (answer->result != 0) return system_error(-answer->result, "cannot read tarnd's kernel log");
  LogPart part{{}, answer->total};
  std::span<const std::byte> left(answer->bytes);
  while (!left.empty()) {
    ox_ctl_logline line;
    if (left.size() < sizeof(line)) return protocol_error("part of a log line");
    std::memcpy(&line, left.data(), sizeof(line));
    left = left.subspan(sizeof(line));
    if (left.size() < line.len) return protocol_error("part of a log line");
    part.lines.push_back({line.number, line.us, line.level,
                          std::string(reinterpret_cast<const char *>(left.data()), line.len)});
    left = left.subspan(line.len);
  }
  return part;
}

}  // namespace

Result<std::unique_ptr<ControlLink>> connect_tarnd(const std::string &run_dir) {
  auto socket = connect_socket(run_dir, OX_CTL_SOCKET);
  if (!socket) return socket.error();
  return std::unique_ptr<ControlLink>(std::make_unique<TarndControl>(std::move(*socket)));
}

}  // namespace tarn
