// SPDX-License-Identifier: GPL-2.0
// rule test: which rules include a path, and by which entry.
#include <iostream>

#include <fmt/format.h>

#include "base/text.h"
#include "client/control.h"
#include "client/json_bytes.h"
#include "client/paths.h"
#include "client/rule_scope.h"
#include "client/site.h"
#include "tarn/commands.h"

namespace tarn {
namespace {

using Json = nlohmann::ordered_json;

/* As in `rule list`. */
std::string entry_text(const RuleScope::Entry &entry) {
  return (entry.included ? "+" : "-") + printable(entry.directory);
}

Json entry_json(const RuleScope::Entry *entry) {
  if (!entry) return nullptr;
  return {{entry->included ? "include" : "exclude", json_bytes(entry->directory)}};
}

/* What the path that was given stands for. */
struct Tested {
  std::string path;  /* of the lower file system */
  std::string mount; /* the path of the mount that it was given as; empty: none */
};

std::string rule_text(const Uuid &uuid, const RuleScope &scope, const std::string &path) {
  const RuleScope::Entry *entry = scope.deciding(path);
  if (!entry)
    return fmt::format("{} lists neither the path nor a directory above it\n", to_string(uuid));
  std::string text = fmt::format("{} {} it by {}\n", to_string(uuid),
                                 entry->included ? "includes" : "excludes", entry_text(*entry));
  if (const RuleScope::Entry *nearest = scope.nearest(path); *nearest != *entry)
    text += fmt::format(
        "  and not by {}, which is listed after a directory inside it: the module does not apply "
        "such an entry to all that is below\n",
        entry_text(*nearest));
  return text;
}

Json rule_json(const Uuid &uuid, const RuleScope &scope, const std::string &path) {
  Json json;
  json["uuid"] = to_string(uuid);
  json["included"] = scope.includes(path);
  json["entry"] = entry_json(scope.deciding(path));
  if (const auto *nearest = scope.nearest(path); nearest && *nearest != *scope.deciding(path))
    json["ineffective"] = entry_json(nearest);
  return json;
}

bool print(const Tested &tested, const std::vector<Rule> &rules, Format format) {
  bool included = false;
  std::string text;
  Json list = Json::array();
  for (const Rule &rule : rules) {
    const RuleScope scope(rule.workdir);
    included = included || scope.includes(tested.path);
    text += rule_text(rule.uuid, scope, tested.path);
    list.push_back(rule_json(rule.uuid, scope, tested.path));
  }
  if (format == Format::kJson) {
    Json json;
    json["path"] = json_bytes(tested.path);
    if (!tested.mount.empty()) json["mount_path"] = json_bytes(tested.mount);
    json["included"] = included;
    json["rules"] = std::move(list);
    std::cout << json.dump(2) << '\n';
    return included;
  }
  if (!tested.mount.empty())
    std::cout << fmt::format("{} is a path of a mount: its lower path is {}\n",
                             printable(tested.mount), printable(tested.path));
  std::cout << (rules.empty() ? "there is no rule\n" : text);
  return included;
}

/* The exit code says "not included" otherwise. */
int cannot_tell(const Error &error) {
  const int exit = fail(error);
  return exit == kExitFailed ? kExitUsage : exit;
}

}  // namespace

int rule_test_command(const std::string &path, Format format) {
  auto whole = whole_path(path);
  if (!whole) return cannot_tell(whole.error());
  auto channel = ControlChannel::connect(find_site());
  if (!channel) return cannot_tell(channel.error());
  const auto mounts = channel->mounts();
  if (!mounts) return cannot_tell(mounts.error());
  const auto rules = channel->list_rules();
  if (!rules) return cannot_tell(rules.error());
  Tested tested{.path = *whole, .mount = ""};
  if (const auto lower = meant_lower_path(*mounts, *whole))
    tested = {.path = *lower, .mount = std::move(*whole)};
  return print(tested, *rules, format) ? kExitOk : kExitNotIncluded;
}

}  // namespace tarn
