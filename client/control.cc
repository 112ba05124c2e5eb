// SPDX-License-Identifier: GPL-2.0
#include "client/control.h"

#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "base/text.h"
#include "module/os_public/Include/ox_msg.h"

namespace tarn {
namespace {

constexpr int kListAttempts = 10;

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

Error short_answer(const char *what) {
  return {
      -EPROTO,
      fmt::format("the module's answer makes no sense ({}): tool and module must be of one version",
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
      return error("does not exist; 'tarn rule list' shows the rules that do");
    case OX_ERR_SIZE:
      return error(
          "the module expects a record of another length: tool and module must be of one version");
    case OX_ERR_COUNT:
      return error("the rules keep changing while they are read: try again");
    case OX_ERR_PATTERN:
      return error("the module could not compile its directories: check them, or name fewer");
    case -EPERM:
      return error("not permitted: only root, or the user that runs tarnd, may do this");
    case -ENOPROTOOPT:
      return error("the module is not loaded: load tarn.ko, or start tarnd with 'tarn mount'");
  }
  if (result > 0)
    return error(
        fmt::format("{} bytes could not be copied to or from the module: try again", result));
  Error failed = system_error(-result, subject);
  failed.text += ": 'tarn log' may say more";
  return failed;
}

Result<ControlChannel> ControlChannel::connect(const Site &site) {
  auto link = site.in_kernel() ? open_kernel() : connect_tarnd(site.run_dir);
  if (!link) return link.error();
  return ControlChannel(std::move(*link));
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
  if (option->bytes.size() < sizeof(info)) return short_answer("a short count");
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
  if (option->bytes.size() < sizeof(info)) return short_answer("a short answer");
  std::memcpy(&info, option->bytes.data(), sizeof(info));
  return info.rulenum == 1;
}

Result<Rule> ControlChannel::get_rule(const Uuid &uuid) {
  prule_info info{};
  put_uuid(info.uuid, uuid);
  auto option = get_option(OX_SO_GET_RULE, bytes_of(info), sizeof(prule));
  if (!option) return option.error();
  if (option->result != 0) return module_error(option->result, rule_name(uuid));
  if (option->bytes.size() != sizeof(prule)) return short_answer("a short rule");
  return read_rule(option->bytes.data());
}

Result<std::vector<Rule>> ControlChannel::list_rules() {
  // The module wants the exact number of rules; it may change between the two requests.
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
    if (option->bytes.size() % sizeof(prule) != 0) return short_answer("part of a rule");
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
  const std::string subject = "replicated directory " + to_string(uuid);
  if (*result == OX_ERR_NOENT)
    return Error{*result, subject +
                              ": does not exist; its UUID is what 'tarn dir add' was given or "
                              "has printed"};
  if (*result != 0) return module_error(*result, subject);
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

}  // namespace tarn
