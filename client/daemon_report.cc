// SPDX-License-Identifier: GPL-2.0
#include "client/daemon_report.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include <nlohmann/json.hpp>

#include "base/text.h"
#include "base/text_file.h"
#include "base/unique_fd.h"

namespace tarn {
namespace {

std::string report_file(const Site &site) {
  return site.run_dir + "/mirrord.json";
}

/* 0 or an error number; `name` is the pattern of mkostemp(3), and then the file's. */
int write_new(std::string &name, const std::string &text) {
  UniqueFd fd(mkostemp(name.data(), O_CLOEXEC));
  if (!fd) return errno;
  int err = fchmod(fd.get(), 0644) == 0 ? 0 : errno;
  if (err == 0) err = write_text(fd.get(), text);
  if (const int close_error = fd.close(); err == 0) err = close_error;
  if (err != 0) unlink(name.c_str());
  return err;
}

}  // namespace

Result<void> write_daemon_report(const Site &site, const DaemonReport &report) {
  nlohmann::ordered_json json = {
      {"pid", getpid()}, {"problems", report.problems}, {"stopped", nlohmann::json::array()}};
  for (const Uuid &rule : report.stopped) json["stopped"].push_back(to_string(rule));
  const std::string path = report_file(site);
  std::string temporary = path + ".XXXXXX";
  int err = write_new(temporary, json.dump(2) + "\n");
  if (err == 0 && rename(temporary.c_str(), path.c_str()) != 0) {
    err = errno;
    unlink(temporary.c_str());
  }
  if (err != 0) return system_error(err, "cannot write " + printable(path));
  return {};
}

Result<std::optional<DaemonReport>> read_daemon_report(const Site &site, pid_t daemon) {
  const std::string path = report_file(site);
  const auto text = read_text(path, "cannot read " + printable(path));
  if (!text && text.error().code == -ENOENT) return std::optional<DaemonReport>();
  if (!text) return text.error();
  const auto json = nlohmann::json::parse(*text, nullptr, false);
  DaemonReport report;
  try {
    // The report of another or an earlier daemon.
    if (json.at("pid").get<pid_t>() != daemon) return std::optional<DaemonReport>();
    report.problems = json.at("problems").get<std::uint64_t>();
    for (const auto &rule : json.at("stopped")) {
      if (const auto uuid = parse_uuid(rule.get<std::string>())) report.stopped.insert(*uuid);
    }
  } catch (const nlohmann::json::exception &) {
    return Error{-EBADMSG, printable(path) + " is not the report of a daemon"};
  }
  return std::optional(std::move(report));
}

}  // namespace tarn
