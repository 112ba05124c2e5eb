// SPDX-License-Identifier: GPL-2.0
#include "mirrord/config/config.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <initializer_list>
#include <limits>
#include <map>
#include <optional>
#include <string_view>

#include <fmt/format.h>

#include "base/text.h"
#include "base/text_file.h"
#include "base/unique_fd.h"
#include "client/paths.h"
#include "client/workdir.h"
#include "mirrord/config/names.h"
#include "mirrord/config/section.h"
#include "mirrord/config/stream_target.h"
#include "module/os_public/Include/ox_msg.h"

namespace tarn {
namespace {

constexpr off_t kFileMax = 1 << 20;
constexpr std::ptrdiff_t kDotsInLineMax = 200;
// The log is kept in segments of 16 MiB, of which the last one is never released.
constexpr std::uint64_t kLogLimitMin = std::uint64_t{64} << 20;
constexpr std::uint64_t kBytesPerSecondMin = 4096;

std::string read_directory(Section &section, Section::LookUp look_up) {
  constexpr std::string_view kExpected = "the absolute path of a directory";
  const auto directory = section.path("directory", kExpected, look_up);
  if (directory) return directory->value;
  if (!section.find("directory")) section.missing("directory", kExpected);
  return "";
}

/*
 * The path that records carry: the directories above the last name are resolved, the last name is
 * not, as the name of a link is excluded and not what it leads to. Nothing for a path that does not
 * lie below `directory`.
 */
std::optional<std::string> exclude_path(const std::string &directory, std::string path) {
  if (path[0] != '/') path = directory + "/" + path;
  while (path.ends_with('/')) path.pop_back();
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return std::nullopt;
  const std::string name = path.substr(slash + 1);
  std::string_view parts = path;
  while (!parts.empty()) {
    const std::string_view part = take_until(parts, '/');
    if (part == "." || part == "..") return std::nullopt;
  }
  const auto parent = whole_path(slash == 0 ? "/" : path.substr(0, slash));
  if (!parent || !path_below(directory, *parent)) return std::nullopt;
  return (*parent == "/" ? "" : *parent) + "/" + name;
}

void read_exclude(Section &section, SourceConfig &source) {
  const std::string expected = source.directory.empty() ? "an array of paths below the directory"
                                                        : fmt::format("an array of paths below {}",
                                                                      printable(source.directory));
  const toml::array *array = section.array("exclude", expected);
  if (!array || source.directory.empty()) return;
  const std::string one =
      fmt::format("a path below {} without '.' and '..'", printable(source.directory));
  NameLines taken;
  for (const toml::node &node : *array) {
    const auto given = section.text_of("exclude", node, one);
    if (!given) continue;
    auto path = exclude_path(source.directory, given->value);
    if (!path) {
      section.problem(given->line, fmt::format("exclude {} does not lie there; expected {}",
                                               printable(given->value), one));
    } else if (const auto [old, added] = taken.emplace(*path, given->line); !added) {
      section.problem(given->line,
                      fmt::format("exclude {} is the same as that of line {}; expected it once",
                                  printable(given->value), old->second));
    } else {
      source.exclude.push_back(std::move(*path));
    }
  }
  // The module has room for one text for each source.
  const auto text = make_workdir({{source.directory}, source.exclude});
  if (text) return;
  if (text.error().code == -E2BIG)
    section.problem(
        line_of(array->source()),
        fmt::format("the {} excludes do not fit the rule of {}, which has room for "
                    "their paths in Base64, {} bytes; expected fewer or shorter ones",
                    source.exclude.size(), printable(source.directory), OX_WORKDIR_LEN - 1));
  else
    section.problem(line_of(array->source()), text.error().text + "; expected " + one);
}

/* Which form a target's table has. */
bool is_stream(Section &section) {
  constexpr std::string_view kKinds = "\"directory\" or \"nats\"";
  const auto kind = section.text("kind", kKinds);
  if (!kind || kind->value == "directory") return false;
  if (kind->value == "nats") return true;
  section.problem(kind->line,
                  fmt::format("kind {} is unknown; expected {}", printable(kind->value), kKinds));
  return false;
}

TargetConfig read_target(Section &section, NameLines &names) {
  TargetConfig target;
  target.line = section.line();
  target.name = read_name(section, names);
  target.directory = read_directory(section, Section::LookUp::kPerhapsLater);
  section.end();
  return target;
}

SourceConfig read_source(Section &section, NameLines &names, std::uint64_t log_limit) {
  SourceConfig source;
  source.line = section.line();
  source.name = read_name(section, names);
  source.directory = read_directory(section, Section::LookUp::kNow);
  read_exclude(section, source);
  source.log_limit = section.size("log-limit", kLogLimitMin).value_or(log_limit);
  source.walk_files_per_second = section.count("copy-files-per-second", 1'000'000'000).value_or(0);
  source.copy_bytes_per_second =
      section.size("copy-bytes-per-second", kBytesPerSecondMin).value_or(0);
  NameLines target_names;
  for (Section &target : section.tables("target", "[[source.target]]")) {
    if (is_stream(target))
      source.streams.push_back(read_stream_target(target, target_names));
    else
      source.targets.push_back(read_target(target, target_names));
  }
  section.end();
  return source;
}

ReplicaConfig read_replica(Section &section, std::uint64_t log_limit) {
  ReplicaConfig replica;
  NameLines names;
  replica.target.line = section.line();
  replica.target.name = read_name(section, names);
  replica.target.directory = read_directory(section, Section::LookUp::kPerhapsLater);
  replica.stream = read_stream(section);
  replica.log_limit = log_limit;
  replica.copy_bytes_per_second =
      section.size("copy-bytes-per-second", kBytesPerSecondMin).value_or(0);
  section.end();
  return replica;
}

void read_root(const toml::table &table, Config &config, Problems &problems) {
  Section root(&table, "the file", problems);
  const bool is_replica = table.contains("replica");
  if (const auto state = root.path("state", "the absolute path of the service's own directory"))
    config.state_directory = state->value;
  else if (is_replica)
    config.state_directory = kReplicaStateDirectory;
  else if (auto known = default_state_directory(); !known)
    root.problem(0, known.error().text + "; expected a key state");
  else
    config.state_directory = std::move(*known);

  Section log = root.table("log");
  const std::uint64_t log_limit =
      log.size("limit", kLogLimitMin).value_or(SourceConfig().log_limit);
  log.end();

  Section metrics = root.table("metrics");
  if (auto file = metrics.path("file", "the absolute path of a file"))
    config.metrics_file = std::move(file->value);
  metrics.end();

  Section control = root.table("control");
  auto socket = control.path("socket", "the absolute path of a socket");
  if (socket)
    config.control_socket = std::move(socket->value);
  else
    config.control_socket =
        is_replica ? control_socket_in(config.state_directory) : default_control_socket();
  control.end();

  NameLines names;
  if (is_replica) {
    Section replica = root.table("replica");
    config.replica = read_replica(replica, log_limit);
  } else {
    for (Section &source : root.tables("source", "[[source]]"))
      config.sources.push_back(read_source(source, names, log_limit));
  }
  root.end();
}

Result<std::string> read_file(const std::string &file) {
  const std::string what = "cannot read the configuration " + printable(file);
  // Without waiting, should it be a FIFO.
  const UniqueFd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!fd) return system_error(errno, what);
  struct stat status;
  if (fstat(fd.get(), &status) != 0) return system_error(errno, what);
  if (!S_ISREG(status.st_mode))
    return Error{-EINVAL, what + ": it is no regular file; expected a TOML text"};
  if (status.st_size > kFileMax)
    return Error{-EFBIG, fmt::format("{}: it has {} bytes; expected at most {}", what,
                                     status.st_size, kFileMax)};
  return read_text(fd.get(), what);
}

/* The dots of a dotted key nest tables, which the library frees by recursion. */
std::optional<Problem> too_deep(std::string_view text) {
  for (int line = 1; !text.empty(); ++line) {
    const std::string_view part = take_until(text, '\n');
    if (std::count(part.begin(), part.end(), '.') > kDotsInLineMax)
      return Problem{line, fmt::format("the line has more than {} dots; expected fewer: an array "
                                       "may take several lines",
                                       kDotsInLineMax)};
  }
  return std::nullopt;
}

void read_toml(const std::string &text, Config &config, Problems &problems) {
  if (const auto deep = too_deep(text)) return problems.push_back(*deep);
  const std::string_view view = text;
  const toml::parse_result parsed = toml::parse(view);
  if (parsed) return read_root(parsed.table(), config, problems);
  const toml::parse_error &error = parsed.error();
  problems.push_back({line_of(error.source()), escape_controls(error.description())});
}

}  // namespace

ReadConfig read_config_with_problems(const std::string &file) {
  ReadConfig read;
  read.config.file = file;
  const auto text = read_file(file);
  if (!text) {
    read.problems.push_back(text.error());
    return read;
  }
  Problems problems;
  read_toml(*text, read.config, problems);
  std::stable_sort(problems.begin(), problems.end(),
                   [](const Problem &a, const Problem &b) { return a.line < b.line; });
  for (const Problem &problem : problems) {
    const std::string at = problem.line > 0 ? fmt::format(":{}", problem.line) : "";
    read.problems.push_back({-EINVAL, fmt::format("{}{}: {}", printable(file), at, problem.text)});
  }
  return read;
}

Result<Config> read_config(const std::string &file) {
  ReadConfig read = read_config_with_problems(file);
  if (!read.problems.empty()) return std::move(read.problems.front());
  return std::move(read.config);
}

}  // namespace tarn
