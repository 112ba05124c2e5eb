// SPDX-License-Identifier: GPL-2.0
#include "client/control.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "client/run_dir.h"
#include "client/text.h"
#include "module/os_public/Include/ox_ctl.h"
#include "module/os_public/Include/ox_msg.h"

namespace tarn {
namespace {

constexpr int kListAttempts = 10;

std::span<const std::byte> bytes_of(const std::string &text) {
  return std::as_bytes(std::span(text));
}

template <class T>
std::span<const std::byte> bytes_of(const T &record) {
  return std::as_bytes(std::span(&record, 1));
}

void put_uuid(uuid_t &out, const Uuid &uuid) {
  std::memcpy(out, uuid.bytes.data(), sizeof(out));
}

std::string rule_name(const Uuid &uuid) {
  return "rule " + to_string(uuid);
}

Rule read_rule(const std::byte *record) {
  Rule rule;
  std::memcpy(rule.uuid.bytes.data(), record, OX_UUID_LEN);
  const char *workdir = reinterpret_cast<const char *>(record) + OX_UUID_LEN;
  rule.workdir.assign(workdir, strnlen(workdir, OX_WORKDIR_LEN));
  return rule;
}

/* "LOWER MOUNTPOINT OPTIONS\n" per mount. */
std::vector<Mount> read_mounts(std::string_view text) {
  std::vector<Mount> mounts;
  while (!text.empty()) {
    std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(text.size(), line.size() + 1));
    Mount mount;
    for (std::string *field : {&mount.lower, &mount.mountpoint, &mount.options}) {
      const std::string_view word = line.substr(0, line.find(' '));
      line.remove_prefix(std::min(line.size(), word.size() + 1));
      *field = unescape_octal(word);
    }
    mounts.push_back(std::move(mount));
  }
  return mounts;
}

Error protocol_error(const std::string &what) {
  return {-EPROTO,
          fmt::format("tarnd's answer makes no sense ({}): tarn and tarnd must be of one version",
                      what)};
}

}  // namespace

Error module_error(int result, const std::string &subject) {
  const auto error = [&](const std::string &text) { return Error{result, subject + ": " + text}; };
  switch (result) {
    case OX_ERR_NOMEM:
      return error("the module is out of memory: free some and try again");
    case OX_ERR_REQUEST:
      return error("the module does not know this request: tool and module must be of one version");
    case OX_ERR_EXIST:
      return error("exists already: delete it first or choose another UUID");
    case OX_ERR_NOENT:
      return error("does not exist: 'tarn rule list' shows those that do");
    case OX_ERR_SIZE:
      return error(
          "the module expects a record of another length: tool and module must be of one version");
    case OX_ERR_COUNT:
      return error("the rules keep changing while they are read: try again");
    case OX_ERR_PATTERN:
      return error("the module could not compile its directories: check them, or name fewer");
    case -EPERM:
      return error("not permitted: only root and the user that runs tarnd may do this");
    case -ENOPROTOOPT:
      return error("the module is not loaded: start it with 'tarn mount'");
  }
  if (result > 0)
    return error(
        fmt::format("{} bytes could not be copied to or from the module: try again", result));
  Error failed = system_error(-result, subject);
  failed.text += ": 'tarn log' may say more";
  return failed;
}

Result<ControlChannel> ControlChannel::connect(const std::string &run_dir) {
  auto socket = connect_socket(run_dir, OX_CTL_SOCKET);
  if (!socket) return socket.error();
  return ControlChannel(std::move(*socket));
}

Result<void> ControlChannel::send(std::uint32_t op, std::int32_t arg, std::uint64_t room,
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
    if (errno != EINTR) return system_error(errno, "cannot send a request to tarnd");
  }
  return {};
}

Result<ControlChannel::Answer> ControlChannel::receive() {
  std::vector<std::byte> packet(OX_CTL_PACKET_MAX);
  ssize_t got;
  do {
    got = recv(socket_.get(), packet.data(), packet.size(), MSG_TRUNC);
  } while (got < 0 && errno == EINTR);
  if (got < 0) return system_error(errno, "cannot receive tarnd's answer");
  if (got == 0)
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

Result<ControlChannel::Answer> ControlChannel::ask(std::uint32_t op, std::int32_t arg,
                                                   std::uint64_t room,
                                                   std::span<const std::byte> argument) {
  if (auto sent = send(op, arg, room, argument); !sent) return sent.error();
  return receive();
}

Result<int> ControlChannel::set_option(int code, std::span<const std::byte> argument) {
  auto answer = ask(OX_CTL_SETSOCKOPT, code, argument.size(), argument);
  if (!answer) return answer.error();
  return answer->result;
}

Result<ControlChannel::Option> ControlChannel::get_option(int code,
                                                          std::span<const std::byte> buffer,
                                                          std::uint64_t room) {
  auto answer = ask(OX_CTL_GETSOCKOPT, code, room, buffer);
  if (!answer) return answer.error();
  if (answer->total > room)
    return protocol_error(fmt::format("{} bytes for {}", answer->total, room));
  Option option{answer->result, std::move(answer->bytes)};
  while (option.result == 0 && option.bytes.size() < answer->total) {
    auto more = receive();
    if (!more) return more.error();
    if (more->bytes.empty() || more->bytes.size() > answer->total - option.bytes.size())
      return protocol_error(fmt::format("a piece of {} bytes", more->bytes.size()));
    option.bytes.insert(option.bytes.end(), more->bytes.begin(), more->bytes.end());
  }
  return option;
}

Result<void> ControlChannel::add_rule(const Rule &rule) {
  prule record{};
  if (rule.workdir.size() >= sizeof(record.workdir))
    return Error{
        -E2BIG, fmt::format("{}: its text has {} bytes and {} fit: name fewer directories",
                            rule_name(rule.uuid), rule.workdir.size(), sizeof(record.workdir) - 1)};
  put_uuid(record.uuid, rule.uuid);
  std::memcpy(record.workdir, rule.workdir.data(), rule.workdir.size());
  auto result = set_option(OX_SO_REP_ADD, bytes_of(record));
  if (!result) return result.error();
  if (*result != 0) return module_error(*result, rule_name(rule.uuid));
  return {};
}

Result<void> ControlChannel::delete_rule(const Uuid &uuid) {
  prule record{};
  put_uuid(record.uuid, uuid);
  auto result = set_option(OX_SO_REP_DEL, bytes_of(record));
  if (!result) return result.error();
  if (*result != 0) return module_error(*result, rule_name(uuid));
  return {};
}

Result<void> ControlChannel::flush_rules() {
  auto result = set_option(OX_SO_REP_FLUSH, {});
  if (!result) return result.error();
  if (*result != 0) return module_error(*result, "rules");
  return {};
}

Result<int> ControlChannel::count_rules() {
  prule_info info{};
  info.op = OX_INFO_COUNT;
  auto option = get_option(OX_SO_GET_INFO, bytes_of(info), sizeof(info));
  if (!option) return option.error();
  if (option->result != 0) return module_error(option->result, "rules");
  if (option->bytes.size() < sizeof(info)) return protocol_error("a short count");
  std::memcpy(&info, option->bytes.data(), sizeof(info));
  return static_cast<int>(info.rulenum);
}

Result<bool> ControlChannel::rule_exists(const Uuid &uuid) {
  prule_info info{};
  info.op = OX_INFO_EXIST;
  put_uuid(info.uuid, uuid);
  auto option = get_option(OX_SO_GET_INFO, bytes_of(info), sizeof(info));
  if (!option) return option.error();
  if (option->result != 0) return module_error(option->result, rule_name(uuid));
  if (option->bytes.size() < sizeof(info)) return protocol_error("a short answer");
  std::memcpy(&info, option->bytes.data(), sizeof(info));
  return info.rulenum == 1;
}

Result<Rule> ControlChannel::get_rule(const Uuid &uuid) {
  prule_info info{};
  put_uuid(info.uuid, uuid);
  auto option = get_option(OX_SO_GET_RULE, bytes_of(info), sizeof(prule));
  if (!option) return option.error();
  if (option->result != 0) return module_error(option->result, rule_name(uuid));
  if (option->bytes.size() != sizeof(prule)) return protocol_error("a short rule");
  return read_rule(option->bytes.data());
}

Result<std::vector<Rule>> ControlChannel::list_rules() {
  // The module answers only the right number of rules; it may change between the two requests.
  for (int attempt = 0; attempt < kListAttempts; ++attempt) {
    auto count = count_rules();
    if (!count) return count.error();
    prule_info info{};
    info.rulenum = *count;
    const std::uint64_t room =
        std::max(static_cast<std::uint64_t>(*count) * sizeof(prule), sizeof(info));
    auto option = get_option(OX_SO_GET_RULES, bytes_of(info), room);
    if (!option) return option.error();
    if (option->result == OX_ERR_COUNT) continue;
    if (option->result != 0) return module_error(option->result, "rules");
    if (option->bytes.size() % sizeof(prule) != 0) return protocol_error("part of a rule");
    std::vector<Rule> rules;
    for (std::size_t at = 0; at < option->bytes.size(); at += sizeof(prule))
      rules.push_back(read_rule(option->bytes.data() + at));
    return rules;
  }
  return module_error(OX_ERR_COUNT, "rules");
}

Result<void> ControlChannel::add_directory(const Uuid &uuid, const std::string &path) {
  dir record{};
  if (path.empty() || path[0] != '/' || path.find('\0') != std::string::npos ||
      path.size() >= sizeof(record.repdir))
    return Error{
        -EINVAL,
        fmt::format("replicated directory {}: must be an absolute path of at most {} bytes",
                    printable(path), sizeof(record.repdir) - 1)};
  put_uuid(record.uuid, uuid);
  std::memcpy(record.repdir, path.data(), path.size());
  auto result = set_option(OX_SO_DIR_ADD, bytes_of(record));
  if (!result) return result.error();
  if (*result != 0) return module_error(*result, "replicated directory " + to_string(uuid));
  return {};
}

Result<void> ControlChannel::delete_directory(const Uuid &uuid) {
  dir record{};
  put_uuid(record.uuid, uuid);
  auto result = set_option(OX_SO_DIR_DEL, bytes_of(record));
  if (!result) return result.error();
  if (*result != 0) return module_error(*result, "replicated directory " + to_string(uuid));
  return {};
}

Result<void> ControlChannel::flush_directories() {
  auto result = set_option(OX_SO_DIR_FLUSH, {});
  if (!result) return result.error();
  if (*result != 0) return module_error(*result, "replicated directories");
  return {};
}

Result<void> ControlChannel::set_daemon_path(const std::string &path) {
  if (path.empty() || path[0] != '/' || path.find('\0') != std::string::npos ||
      path.size() >= OX_DAEMON_PATH_LEN)
    return Error{-EINVAL, fmt::format("daemon {}: must be an absolute path of at most {} bytes",
                                      printable(path), OX_DAEMON_PATH_LEN - 1)};
  const auto length = static_cast<int>(path.size() + 1);
  auto result =
      set_option(OX_SO_SET_DAEMON, std::as_bytes(std::span(path.c_str(), path.size() + 1)));
  if (!result) return result.error();
  // Success is the length that was given.
  if (*result != length) return module_error(*result, "daemon " + printable(path));
  return {};
}

Result<void> ControlChannel::ask_mount(std::uint32_t op, std::int32_t arg,
                                       const std::string &argument, const std::string &what) {
  auto answer = ask(op, arg, 0, bytes_of(argument));
  if (!answer) return answer.error();
  if (answer->result == 0) return {};
  const std::string text(reinterpret_cast<const char *>(answer->bytes.data()),
                         answer->bytes.size());
  if (text.empty()) return system_error(-answer->result, what);
  return Error{answer->result, text};
}

Result<void> ControlChannel::mount(const std::string &lower, const std::string &mountpoint) {
  std::string argument = lower;
  argument.append(1, '\0').append(mountpoint).append(1, '\0');
  return ask_mount(OX_CTL_MOUNT, 0, argument, "cannot mount at " + printable(mountpoint));
}

Result<void> ControlChannel::umount(const std::string &mountpoint, Umount how) {
  std::string argument = mountpoint;
  argument.append(1, '\0');
  return ask_mount(OX_CTL_UMOUNT, how == Umount::kLazily ? 1 : 0, argument,
                   "cannot unmount " + printable(mountpoint));
}

Result<std::vector<Mount>> ControlChannel::mounts() {
  auto answer = ask(OX_CTL_MOUNTS, 0, 0, {});
  if (!answer) return answer.error();
  if (answer->result != 0) return module_error(answer->result, "mount table");
  return read_mounts({reinterpret_cast<const char *>(answer->bytes.data()), answer->bytes.size()});
}

Result<LogPart> ControlChannel::log(std::uint64_t first, std::chrono::milliseconds wait) {
  auto answer = ask(OX_CTL_LOG, static_cast<std::int32_t>(wait.count()), first, {});
  if (!answer) return answer.error();
  if (answer->result != 0) return module_error(answer->result, "kernel log");
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

}  // namespace tarn
