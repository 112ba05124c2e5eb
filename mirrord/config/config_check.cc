// SPDX-License-Identifier: GPL-2.0
// What only the machine tells about a configuration.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <optional>

#include <fmt/format.h>

#include "base/text.h"
#include "client/control.h"
#include "client/paths.h"
#include "client/site.h"
#include "mirrord/config/config.h"
#include "mirrord/overlap.h"

namespace tarn {
namespace {

/* 0 for a directory, otherwise an error number. */
int look_up_directory(const std::string &path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) return errno;
  return S_ISDIR(status.st_mode) ? 0 : ENOTDIR;
}

std::string parent_of(const std::string &path) {
  const std::size_t slash = path.rfind('/');
  return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

/* Mounts of tarn, with what they show of the lower directory. */
std::vector<Mount> tarn_mounts(const std::vector<MountEntry> &table) {
  std::vector<Mount> mounts;
  for (const MountEntry &entry : table) {
    if (entry.lower.empty()) continue;
    const std::string below = entry.root == "/" ? "" : entry.root;
    mounts.push_back({(entry.lower == "/" && !below.empty() ? "" : entry.lower) + below,
                      entry.mountpoint, entry.options});
  }
  return mounts;
}

/* A line about a place in the file. */
std::string line_about(const Config &config, int line, const std::string &text) {
  if (config.file.empty()) return text;
  return fmt::format("{}{}: {}", printable(config.file), line > 0 ? fmt::format(":{}", line) : "",
                     text);
}

struct Placed {
  NamedDirectory directory;
  int line;
};

class Check {
 public:
  Check(const Config &config, const std::vector<MountEntry> &table)
      : config_(config), table_(table), mounts_(tarn_mounts(table)) {}

  std::vector<Error> run() {
    for (const SourceConfig &source : config_.sources) {
      check_source(source);
      for (const TargetConfig &target : source.targets) check_target(target);
    }
    if (config_.replica) {
      check_target(config_.replica->target);
      check_own_files(config_.replica->target);
    }
    check_sources_apart();
    check_targets_apart();
    for (const SourceConfig &source : config_.sources) {
      check_apart({"the source", source.directory}, state());
      for (const TargetConfig &target : source.targets) check_own_files(target);
    }
    return std::move(problems_);
  }

  /* Of one target, whose path leads to `now`. `original` is the one of the configuration. */
  std::vector<Error> run_for(const TargetConfig &original, const TargetConfig &now) {
    check_target(now);
    for (const SourceConfig &source : config_.sources) {
      for (const TargetConfig &other : source.targets) {
        if (other.line == original.line && other.directory == original.directory) continue;
        check_apart({"the target", other.directory}, placed(now));
      }
    }
    check_own_files(now);
    return std::move(problems_);
  }

 private:
  void problem(int line, const std::string &text) {
    problems_.push_back({-EINVAL, line_about(config_, line, text)});
  }

  void check_source(const SourceConfig &source) {
    const std::string shown = printable(source.directory);
    if (const int err = look_up_directory(source.directory); err != 0)
      problem(source.line,
              system_error(err, fmt::format("the source {} is no directory", shown)).text +
                  "; expected the lower directory of a mount");
    if (const auto lower = meant_lower_path(mounts_, source.directory))
      problem(source.line,
              fmt::format("the source {} is a path of a mount of tarn; expected the lower "
                          "directory {}",
                          shown, printable(*lower)));
    for (const std::string &exclude : source.exclude) {
      struct stat status;
      if (exclude.find_first_of("*?[") == std::string::npos) continue;
      if (lstat(exclude.c_str(), &status) == 0) continue;
      problem(source.line, fmt::format("the exclude {} does not exist and looks like a pattern; "
                                       "expected the path of a directory or of a file",
                                       printable(exclude)));
    }
  }

  void check_target(const TargetConfig &target) {
    if (look_up_directory(target.directory) == ENOTDIR)
      problem(target.line, fmt::format("the target {} is no directory; expected an existing one",
                                       printable(target.directory)));
    for (const SourceConfig &source : config_.sources) {
      const auto apart = check_overlap(source.directory, target.directory, table_, "target");
      if (!apart) problem(target.line, apart.error().text);
    }
  }

  /* A source inside another one may be excluded there. */
  static bool excludes(const SourceConfig &outer, const SourceConfig &inner) {
    return std::any_of(outer.exclude.begin(), outer.exclude.end(), [&](const auto &exclude) {
      return path_below(exclude, inner.directory).has_value();
    });
  }

  void check_sources_apart() {
    for (auto one = config_.sources.begin(); one != config_.sources.end(); ++one) {
      for (auto other = config_.sources.begin(); other != one; ++other) {
        if (excludes(*one, *other) || excludes(*other, *one)) continue;
        const auto text =
            overlap_text({"the source", other->directory}, {"the source", one->directory}, table_);
        if (text)
          problem(one->line, *text + "; expected one source with several targets, or an exclude");
      }
    }
  }

  void check_targets_apart() {
    std::vector<Placed> seen;
    for (const SourceConfig &source : config_.sources) {
      for (const TargetConfig &target : source.targets) {
        const Placed one = placed(target);
        for (const Placed &other : seen) check_apart(other.directory, one);
        seen.push_back(one);
      }
    }
  }

  void check_apart(const NamedDirectory &other, const Placed &one) {
    auto text = overlap_text(other, one.directory, table_);
    if (!text) text = shown_text(other, one.directory, table_);
    if (!text) text = shown_text(one.directory, other, table_);
    if (text) problem(one.line, *text + "; expected directories that are apart");
  }

  static Placed placed(const TargetConfig &target) {
    return {{"the target", target.directory}, target.line};
  }
  Placed state() const { return {{"the state directory", config_.state_directory}, 0}; }

  void check_own_files(const TargetConfig &target) {
    check_apart(placed(target).directory, state());
    check_outside(target, "the metrics' file", config_.metrics_file);
    check_outside(target, "the control socket", config_.control_socket);
  }

  /* A file in a target would be taken for a difference. */
  void check_outside(const TargetConfig &target, const char *name, const std::string &file) {
    if (file.empty()) return;
    const auto text = overlap_text({"the target", target.directory}, {name, file}, table_);
    if (text) problem(0, *text + "; expected it elsewhere");
  }

  const Config &config_;
  const std::vector<MountEntry> &table_;
  const std::vector<Mount> mounts_;
  std::vector<Error> problems_{};
};

/* The files of a stream, which are read when it is connected. */
void note_files(const Config &config, const StreamConfig &stream, int line,
                std::vector<std::string> &notes) {
  for (const std::string *file :
       {&stream.credentials, &stream.ca, &stream.certificate, &stream.key}) {
    if (file->empty() || access(file->c_str(), R_OK) == 0) continue;
    const Error error = system_error(errno, fmt::format("{} cannot be read", printable(*file)));
    notes.push_back(
        line_about(config, line, error.text + "; expected a file that mirrord may read"));
  }
}

void note_target(const Config &config, const TargetConfig &target,
                 std::vector<std::string> &notes) {
  const int err = look_up_directory(target.directory);
  if (err == 0 || err == ENOTDIR) return;
  const Error error =
      system_error(err, fmt::format("the target {} is not there", printable(target.directory)));
  notes.push_back(line_about(config, target.line,
                             error.text + "; expected an existing directory: make it, or mount its "
                                          "file system"));
}

}  // namespace

std::vector<MountEntry> machine_mount_table() {
  std::vector<MountEntry> table = mount_table();
  if (!table.empty()) return table;
  auto control = ControlChannel::connect(find_site());
  if (!control) return {};
  const auto mounts = control->mounts();
  return mounts ? mount_table_or(*mounts) : table;
}

std::vector<Error> config_problems(const Config &config, const std::vector<MountEntry> &table) {
  return Check(config, table).run();
}

Result<void> check_config(const Config &config, const std::vector<MountEntry> &table) {
  const std::vector<Error> problems = config_problems(config, table);
  if (!problems.empty()) return problems.front();
  return {};
}

Result<void> check_target(const Config &config, const TargetConfig &target,
                          const std::vector<MountEntry> &table) {
  auto directory = whole_path(target.directory);
  if (!directory) return directory.error();
  TargetConfig now = target;
  now.directory = std::move(*directory);
  const std::vector<Error> problems = Check(config, table).run_for(target, now);
  if (!problems.empty()) return problems.front();
  return {};
}

std::vector<std::string> config_notes(const Config &config) {
  std::vector<std::string> notes;
  for (const SourceConfig &source : config.sources) {
    for (const StreamTargetConfig &target : source.streams)
      note_files(config, target.stream, target.line, notes);
  }
  for (const SourceConfig &source : config.sources) {
    for (const TargetConfig &target : source.targets) note_target(config, target, notes);
  }
  if (config.replica) {
    note_files(config, config.replica->stream, config.replica->target.line, notes);
    note_target(config, config.replica->target, notes);
  }
  if (config.metrics_file.empty()) return notes;
  if (const int err = look_up_directory(parent_of(config.metrics_file)); err != 0) {
    const Error error = system_error(
        err, fmt::format("the metrics' file {} cannot be made", printable(config.metrics_file)));
    notes.push_back(line_about(config, 0, error.text + "; expected an existing directory"));
  }
  return notes;
}

int check_command(const std::string &file) {
  const ReadConfig read = read_config_with_problems(file);
  std::vector<std::string> lines;
  for (const Error &problem : read.problems) lines.push_back(problem.text);
  if (lines.empty()) {
    for (const Error &problem : config_problems(read.config, machine_mount_table()))
      lines.push_back(problem.text);
    for (std::string &note : config_notes(read.config)) lines.push_back(std::move(note));
  }
  for (const std::string &line : lines) std::cerr << line + "\n";
  if (!lines.empty()) return 1;
  if (read.config.replica) {
    std::cout << fmt::format("{}: replica {} of stream {}: good\n", printable(file),
                             read.config.replica->target.name, read.config.replica->stream.stream)
              << std::flush;
    return 0;
  }
  std::size_t targets = 0;
  for (const SourceConfig &source : read.config.sources)
    targets += source.targets.size() + source.streams.size();
  std::cout << fmt::format("{}: {} sources, {} targets: good\n", printable(file),
                           read.config.sources.size(), targets)
            << std::flush;
  return 0;
}

}  // namespace tarn
