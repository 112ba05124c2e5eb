// SPDX-License-Identifier: GPL-2.0
#include "client/daemon_report.h"

#include <cerrno>
#include <fstream>
#include <iterator>

#include <nlohmann/json.hpp>

#include "base/text.h"

namespace tarn {

std::string daemon_report_file(const Site &site) {
  return site.run_dir + "/mirrord.json";
}

Result<std::optional<DaemonReport>> read_daemon_report(const Site &site, pid_t daemon) {
  const std::string path = daemon_report_file(site);
  errno = 0;
  std::ifstream file(path);
  if (!file && errno == ENOENT) return std::optional<DaemonReport>();
  const std::string text(std::istreambuf_iterator<char>(file), {});
  if (!file) return system_error(errno != 0 ? errno : EIO, "cannot read " + printable(path));
  const auto json = nlohmann::json::parse(text, nullptr, false);
  DaemonReport report;
  try {
    // The report of another or an earlier daemon.
    if (json.at("pid").get<pid_t>() != daemon || !json.at("running").get<bool>())
      return std::optional<DaemonReport>();
    report.problems = json.at("problems").get<std::uint64_t>();
    for (const auto &rule : json.at("rules")) {
      const auto uuid = parse_uuid(rule.at("uuid").get<std::string>());
      if (uuid && rule.at("stopped").get<bool>()) report.stopped.insert(*uuid);
    }
  } catch (const nlohmann::json::exception &) {
    return Error{-EBADMSG, printable(path) + " is not the report of a daemon"};
  }
  return std::optional(std::move(report));
}

}  // namespace tarn
