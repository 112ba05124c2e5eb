// SPDX-License-Identifier: GPL-2.0
// status: mounts, rules and daemon of the running tarn.
#include <cerrno>
#include <iostream>

#include <fmt/format.h>

#include "base/text.h"
#include "client/control.h"
#include "client/daemon_lock.h"
#include "client/daemon_report.h"
#include "client/json_bytes.h"
#include "client/site.h"
#include "tarn/commands.h"
#include "tarn/report.h"

namespace tarn {
namespace {

struct Status {
  Site site;
  std::vector<Mount> mounts;
  std::optional<std::vector<Rule>> rules; /* none if the caller may not read them */
  std::optional<pid_t> daemon;
  std::optional<DaemonReport> report; /* none if the daemon writes none */

  bool stopped(const Rule &rule) const { return report && report->stopped.contains(rule.uuid); }
};

void print_json(const Status &status) {
  nlohmann::ordered_json json;
  json["module"] = status.site.in_kernel() ? "kernel" : "tarnd";
  json["run_dir"] = json_bytes(status.site.run_dir);
  json["mounts"] = nlohmann::ordered_json::array();
  for (const Mount &mount : status.mounts) {
    json["mounts"].push_back({{"lower", json_bytes(mount.lower)},
                              {"mountpoint", json_bytes(mount.mountpoint)},
                              {"options", json_bytes(mount.options)}});
  }
  if (status.rules) {
    json["rules"] = nlohmann::ordered_json::array();
    for (const Rule &rule : *status.rules) {
      json["rules"].push_back(rule_json(rule));
      if (status.report) json["rules"].back()["stopped"] = status.stopped(rule);
    }
  }
  json["daemon_pid"] =
      status.daemon ? nlohmann::ordered_json(*status.daemon) : nlohmann::ordered_json(nullptr);
  if (status.report) json["daemon_problems"] = status.report->problems;
  std::cout << json.dump(2) << '\n';
}

std::string problems_text(const Status &status) {
  if (!status.report || status.report->problems == 0) return "";
  return fmt::format("; {} problems: the replica may differ from the source",
                     status.report->problems);
}

void print_text(const Status &status) {
  if (status.site.in_kernel())
    std::cout << "module: in the running kernel\n";
  else
    std::cout << "tarnd: running in " << printable(status.site.run_dir) << '\n';
  for (const Mount &mount : status.mounts)
    std::cout << "mount: " << printable(mount.lower) << " at " << printable(mount.mountpoint)
              << '\n';
  if (status.mounts.empty()) std::cout << "mount: none; 'tarn mount LOWER MOUNTPOINT' makes one\n";
  if (!status.rules) {
    std::cout << "rules: only root, or the user that runs tarnd, may see them\n";
  } else {
    for (const Rule &rule : *status.rules)
      std::cout << "rule: " << rule_line(rule)
                << (status.stopped(rule) ? " STOPPED: captures nothing more; 'tarn log' tells why\n"
                                         : "\n");
    if (status.rules->empty()) std::cout << "rule: none; 'tarn rule add --include DIR' makes one\n";
  }
  if (status.daemon)
    std::cout << "daemon: process " << *status.daemon << problems_text(status) << '\n';
  else
    std::cout << "daemon: none; changes are not sent to anybody\n";
}

}  // namespace

int status_command(Format format) {
  const Site site = find_site();
  auto channel = ControlChannel::connect(site);
  if (!channel) return fail(channel.error());
  auto mounts = channel->mounts();
  if (!mounts) return fail(mounts.error());
  const auto daemon = registered_daemon(site);
  if (!daemon) return fail(daemon.error());
  auto rules = channel->list_rules();
  if (!rules && rules.error().code != -EPERM) return fail(rules.error());
  std::optional<DaemonReport> report;
  if (*daemon) {
    const auto read = read_daemon_report(site, **daemon);
    if (!read) return fail(read.error());
    report = *read;
  }
  const Status status{site, std::move(*mounts),
                      rules ? std::optional(std::move(*rules)) : std::nullopt, *daemon,
                      std::move(report)};
  if (format == Format::kJson)
    print_json(status);
  else
    print_text(status);
  return kExitOk;
}

}  // namespace tarn
