// SPDX-License-Identifier: GPL-2.0
#include <fmt/format.h>

#include "base/text.h"
#include "mirrord/control/control.h"

namespace tarn {
namespace {

std::string reason(const std::string &text) {
  return text.empty() ? text : ": " + text;
}

void add_problems(const std::string &source, const TargetReport &target,
                  std::vector<std::string> &lines) {
  const std::string name = source + "/" + target.name;
  if (target.state == "held" && target.kind != kDirectoryKind)
    lines.push_back(
        fmt::format("{} is held{}; it is tried again", name, reason(target.last_error)));
  else if (target.state == "held")
    lines.push_back(
        fmt::format("{} is held{}; it is tried again, and 'mirrord skip {}' steps over "
                    "what holds it",
                    name, reason(target.last_error), name));
  if (target.state == "away")
    lines.push_back(
        fmt::format("{} is away{}; it is healed when it is back", name, reason(target.last_error)));
  if (target.gaps != 0)
    lines.push_back(
        fmt::format("{} has {} gaps that are not healed: it may differ", name, target.gaps));
}

}  // namespace

std::vector<std::string> problems(const ServiceReport &report) {
  std::vector<std::string> lines;
  if (!report.connected)
    lines.push_back("there is no connection to the module" + reason(report.connection_error) +
                    ": nothing new is captured");
  for (const SourceReport &source : report.sources) {
    if (source.stopped)
      lines.push_back(
          fmt::format("{} is stopped: the module captures nothing more for it; 'tarn "
                      "log' tells why",
                      source.name));
    for (const TargetReport &target : source.targets) add_problems(source.name, target, lines);
  }
  return lines;
}

}  // namespace tarn
