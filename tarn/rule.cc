// SPDX-License-Identifier: GPL-2.0
// rule add, del, list, show and flush.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <iostream>

#include <fmt/format.h>

#include "base/text.h"
#include "client/control.h"
#include "client/paths.h"
#include "client/site.h"
#include "client/workdir.h"
#include "tarn/commands.h"
#include "tarn/report.h"
#include "tarn/request.h"

namespace tarn {

Result<Uuid> read_uuid(const std::string &text) {
  if (const auto uuid = parse_uuid(text)) return *uuid;
  return Error{-EINVAL, fmt::format("{} is not a UUID: give 32 hexadecimal digits as in "
                                    "01234567-89AB-CDEF-0123-456789ABCDEF",
                                    printable(text))};
}

namespace {

/* Records carry canonical paths. */
Result<std::vector<std::string>> whole_paths(const std::vector<std::string> &paths) {
  std::vector<std::string> whole;
  for (const std::string &path : paths) {
    auto resolved = whole_path(path);
    if (!resolved) return resolved.error();
    whole.push_back(std::move(*resolved));
  }
  return whole;
}

void note_mounted_paths(ControlChannel &channel, const std::vector<std::string> &paths) {
  const auto mounts = channel.mounts();
  if (!mounts) return;
  for (const std::string &path : paths) {
    if (const auto lower = meant_lower_path(*mounts, path))
      std::cerr << fmt::format(
          "tarn: note: {} is a path of the mount; rules are about the lower directory: "
          "you may have meant {}\n",
          printable(path), printable(*lower));
  }
}

void note_absent_paths(const std::vector<std::string> &paths) {
  for (const std::string &path : paths) {
    if (access(path.c_str(), F_OK) != 0 && errno == ENOENT)
      std::cerr << fmt::format("tarn: note: the directory {} does not exist\n", printable(path));
  }
}

}  // namespace

int rule_add_command(const std::optional<std::string> &uuid,
                     const std::vector<std::string> &include,
                     const std::vector<std::string> &exclude) {
  Rule rule;
  if (uuid) {
    const auto given = read_uuid(*uuid);
    if (!given)
      return fail({-EINVAL, given.error().text + "; directories go behind --include"}), kExitUsage;
    rule.uuid = *given;
  } else {
    const auto made = make_uuid();
    if (!made) return fail(made.error());
    rule.uuid = *made;
  }
  auto included = whole_paths(include), excluded = whole_paths(exclude);
  if (!included) return fail(included.error());
  if (!excluded) return fail(excluded.error());
  auto workdir = make_workdir({*included, *excluded});
  if (!workdir) return fail(workdir.error());
  rule.workdir = std::move(*workdir);

  auto channel = ControlChannel::connect(find_site());
  if (!channel) return fail(channel.error());
  if (auto added = channel->add_rule(rule); !added) return fail(added.error());
  note_mounted_paths(*channel, *included);
  note_absent_paths(*included);
  if (!uuid) std::cout << to_string(rule.uuid) << '\n';
  return kExitOk;
}

int rule_delete_command(const std::string &uuid_text) {
  const auto uuid = read_uuid(uuid_text);
  if (!uuid) return fail(uuid.error()), kExitUsage;
  return ask_module([&](ControlChannel &channel) { return channel.delete_rule(*uuid); });
}

int rule_list_command(Format format) {
  auto channel = ControlChannel::connect(find_site());
  if (!channel) return fail(channel.error());
  const auto rules = channel->list_rules();
  if (!rules) return fail(rules.error());
  if (format == Format::kJson) {
    auto json = nlohmann::ordered_json::array();
    for (const Rule &rule : *rules) json.push_back(rule_json(rule));
    std::cout << json.dump(2) << '\n';
    return kExitOk;
  }
  for (const Rule &rule : *rules) std::cout << rule_line(rule) << '\n';
  return kExitOk;
}

int rule_show_command(const std::string &uuid_text, Format format) {
  const auto uuid = read_uuid(uuid_text);
  if (!uuid) return fail(uuid.error()), kExitUsage;
  auto channel = ControlChannel::connect(find_site());
  if (!channel) return fail(channel.error());
  const auto rule = channel->get_rule(*uuid);
  if (!rule) return fail(rule.error());
  if (format == Format::kJson) {
    std::cout << rule_json(*rule).dump(2) << '\n';
    return kExitOk;
  }
  const ReadWorkdir read = read_workdir(rule->workdir);
  std::cout << "rule " << to_string(rule->uuid) << '\n';
  for (const std::string &path : read.directories.include)
    std::cout << "  include " << printable(path) << '\n';
  for (const std::string &path : read.directories.exclude)
    std::cout << "  exclude " << printable(path) << '\n';
  for (const std::string &entry : read.broken)
    std::cout << "  not a directory: " << printable(entry) << '\n';
  return kExitOk;
}

int rule_flush_command() {
  return ask_module([](ControlChannel &channel) { return channel.flush_rules(); });
}

}  // namespace tarn
