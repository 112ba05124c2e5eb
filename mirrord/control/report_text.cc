// SPDX-License-Identifier: GPL-2.0
#include "mirrord/control/report_text.h"

#include <algorithm>
#include <array>
#include <vector>

#include <fmt/format.h>

#include "base/text.h"

namespace tarn {
namespace {

using Row = std::vector<std::string>;

/* Columns as wide as their widest cell, two blanks between them; the last is not filled up. */
std::string table(const std::vector<Row> &rows, const std::string &indent) {
  std::vector<std::size_t> widths;
  for (const Row &row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  std::string text;
  for (const Row &row : rows) {
    text += indent;
    for (std::size_t i = 0; i + 1 < row.size(); ++i)
      text += fmt::format("{:<{}}  ", row[i], widths[i]);
    text += row.back() + "\n";
  }
  return text;
}

std::string size_text(std::uint64_t bytes) {
  constexpr std::array kUnits = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024) return fmt::format("{} B", bytes);
  double amount = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  for (; amount >= 1023.95 && unit + 1 < kUnits.size(); ++unit) amount /= 1024;
  return fmt::format("{:.1f} {}", amount, kUnits[unit]);
}

std::string time_text(double seconds) {
  if (!(seconds >= 0)) return "-";
  if (seconds < 10) return fmt::format("{:.1f} s", seconds);
  if (seconds >= 1e15) return "for ever";
  const auto whole = static_cast<std::uint64_t>(seconds);
  if (whole < 60) return fmt::format("{} s", whole);
  if (whole < 3600) return fmt::format("{} min {} s", whole / 60, whole % 60);
  if (whole < 86400) return fmt::format("{} h {} min", whole / 3600, whole / 60 % 60);
  return fmt::format("{} d {} h", whole / 86400, whole / 3600 % 24);
}

std::string percent_text(double part) {
  return part >= 0 ? fmt::format("{:.0f} %", std::min(part, 1.0) * 100) : "-";
}

std::string rate_text(double bytes_per_second) {
  if (!(bytes_per_second >= 0)) return "-";
  constexpr double kMost = 1e18;  // of what size_text() takes
  return size_text(static_cast<std::uint64_t>(std::min(bytes_per_second, kMost))) + "/s";
}

std::string full_name(const SourceReport &source, const TargetReport &target) {
  return printable(source.name + "/" + target.name);
}

std::string service_text(const ServiceReport &report) {
  std::string connection = "connected to the module";
  if (!report.connected) connection = "NOT connected to the module";
  return fmt::format("mirrord {}, process {}, up {}: {}\n", one_line(report.version), report.pid,
                     time_text(report.uptime_seconds), connection);
}

std::string source_text(const SourceReport &source) {
  std::string text = fmt::format("\nsource {}: {}{}\n", printable(source.name),
                                 printable(source.directory), source.stopped ? ", STOPPED" : "");
  text += fmt::format("  rule {}: record {} seen, {} logged, {} gaps\n", one_line(source.rule),
                      source.captured, source.logged, source.gaps);
  if (!source.last_gap.empty()) text += "  last gap: " + one_line(source.last_gap) + "\n";
  text += fmt::format("  log {} of {}, entries {} to {}, durable to {}, first is {} old\n",
                      size_text(source.log_bytes), size_text(source.log_limit), source.log_first,
                      source.log_end, source.log_durable, time_text(source.log_age_seconds));
  return text;
}

Row target_row(const SourceReport &source, const TargetReport &target) {
  return {full_name(source, target),
          one_line(target.state),
          fmt::format("{}", target.lag_entries),
          size_text(target.lag_bytes),
          time_text(target.lag_seconds),
          percent_text(target.progress),
          rate_text(target.bytes_per_second),
          time_text(target.seconds_left),
          fmt::format("{}", target.applied),
          fmt::format("{}", target.failures),
          fmt::format("{}", target.gaps),
          fmt::format("{}", target.skipped),
          printable(target.directory)};
}

std::string targets_of(const SourceReport &source) {
  if (source.targets.empty()) return "  no target\n";
  std::vector<Row> rows = {{"TARGET", "STATE", "BEHIND", "BYTES", "TIME", "DONE", "RATE", "LEFT",
                            "APPLIED", "FAILURES", "GAPS", "SKIPPED", "DIRECTORY"}};
  for (const TargetReport &target : source.targets) rows.push_back(target_row(source, target));
  std::string text = table(rows, "  ");
  for (const TargetReport &target : source.targets) {
    if (!target.last_error.empty())
      text += fmt::format("  last error of {}: {}\n", full_name(source, target),
                          one_line(target.last_error));
    if (target.kind != kReplicaKind) continue;
    text += target.contact_seconds < 0
                ? fmt::format("  no report of {} yet\n", full_name(source, target))
                : fmt::format("  last report of {}: {} ago\n", full_name(source, target),
                              time_text(target.contact_seconds));
  }
  return text;
}

}  // namespace

std::string one_line(const std::string &message) {
  const bool control = std::any_of(message.begin(), message.end(),
                                   [](unsigned char byte) { return byte < 0x20 || byte == 0x7f; });
  return control || !valid_utf8(message) ? printable(message) : message;
}

std::string status_text(const ServiceReport &report) {
  std::string text = service_text(report);
  for (const SourceReport &source : report.sources)
    text += source_text(source) + targets_of(source);
  if (report.sources.empty()) text += "no source is configured\n";
  const std::vector<std::string> found = problems(report);
  if (!found.empty()) text += "\nproblems:\n";
  for (const std::string &problem : found) text += "  " + one_line(problem) + "\n";
  return text;
}

std::string targets_text(const ServiceReport &report) {
  std::vector<Row> rows = {{"TARGET", "STATE", "FROM", "TO"}};
  for (const SourceReport &source : report.sources) {
    for (const TargetReport &target : source.targets)
      rows.push_back({full_name(source, target), one_line(target.state),
                      printable(source.directory), printable(target.directory)});
  }
  return table(rows, "");
}

}  // namespace tarn
