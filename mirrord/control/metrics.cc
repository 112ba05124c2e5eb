// SPDX-License-Identifier: GPL-2.0
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>

#include <fmt/format.h>

#include "base/text.h"
#include "base/text_file.h"
#include "base/unique_fd.h"
#include "mirrord/control/control.h"

namespace tarn {
namespace {

/* States that are always shown, so that their series do not come and go. */
constexpr std::array kStates = {"equal",  "following", "copying", "healing",
                                "paused", "held",      "away",    "starting"};

/* A label's value: UTF-8, with backslashes, quotes and line ends escaped. */
std::string label(const std::string &name, const std::string &value) {
  std::string text;
  for (const char c : valid_utf8(value) ? value : printable(value)) {
    if (c == '\\' || c == '"') text += '\\';
    text += c == '\n' ? "\\n" : std::string(1, c);
  }
  return name + "=\"" + text + '"';
}

std::string number(std::uint64_t value) {
  return std::to_string(value);
}
std::string number(bool value) {
  return value ? "1" : "0";
}
std::string number(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value < 0 ? "-Inf" : "+Inf";
  return fmt::format("{}", value);
}

/* The families of the text, one after the other; each has its samples together. */
class Text {
 public:
  explicit Text(const ServiceReport &report) : report_(report) {}

  void family(const char *name, const char *type, const char *help) {
    name_ = name;
    text_ += fmt::format("# HELP tarn_mirrord_{} {}\n# TYPE tarn_mirrord_{} {}\n", name, help, name,
                         type);
  }

  template <class T>
  void sample(const std::string &labels, T value) {
    const std::string braced = labels.empty() ? "" : "{" + labels + "}";
    text_ += fmt::format("tarn_mirrord_{}{} {}\n", name_, braced, number(value));
  }

  template <class F>
  void of_sources(const char *name, const char *type, const char *help, F value) {
    family(name, type, help);
    for (const SourceReport &source : report_.sources)
      sample(label("source", source.name), value(source));
  }

  /* Calls f(target, labels) for each. */
  template <class F>
  void each_target(F f) const {
    for (const SourceReport &source : report_.sources) {
      for (const TargetReport &target : source.targets)
        f(target, label("source", source.name) + "," + label("target", target.name));
    }
  }

  template <class F>
  void of_targets(const char *name, const char *type, const char *help, F value) {
    family(name, type, help);
    each_target([&](const TargetReport &target, const std::string &labels) {
      sample(labels, value(target));
    });
  }

  /* Of those targets that have it: a negative one is unknown. */
  void of_some_targets(const char *name, const char *help, double TargetReport::*value) {
    family(name, "gauge", help);
    each_target([&](const TargetReport &target, const std::string &labels) {
      if (target.*value >= 0) sample(labels, target.*value);
    });
  }

  std::string take() { return std::move(text_); }

 private:
  const ServiceReport &report_;
  std::string name_, text_;
};

void add_service(Text &text, const ServiceReport &report) {
  text.family("info", "gauge", "The version of the service; always 1.");
  text.sample(label("version", report.version), true);
  text.family("uptime_seconds", "gauge", "How long the service has been running.");
  text.sample("", report.uptime_seconds);
  text.family("connected", "gauge", "1 while there is a connection to the module.");
  text.sample("", report.connected);
}

void add_sources(Text &text) {
  using Source = const SourceReport &;
  text.of_sources("source_stopped", "gauge", "1 if the module captures nothing more.",
                  [](Source source) { return source.stopped; });
  text.of_sources("source_captured_records", "gauge", "The highest record number seen.",
                  [](Source source) { return source.captured; });
  text.of_sources("source_logged_records_total", "counter", "Records appended to the log.",
                  [](Source source) { return source.logged; });
  text.of_sources("source_gaps_total", "counter", "Gaps declared in the log.",
                  [](Source source) { return source.gaps; });
  text.of_sources("log_bytes", "gauge", "The size of the log.",
                  [](Source source) { return source.log_bytes; });
  text.of_sources("log_limit_bytes", "gauge", "The size that the log may have.",
                  [](Source source) { return source.log_limit; });
  text.of_sources("log_first_entry", "gauge", "The first entry that the log still has.",
                  [](Source source) { return source.log_first; });
  text.of_sources("log_end_entry", "gauge", "The number that the next entry will have.",
                  [](Source source) { return source.log_end; });
  text.of_sources("log_durable_entry", "gauge", "All entries before this one are on the disk.",
                  [](Source source) { return source.log_durable; });
  text.of_sources("log_age_seconds", "gauge", "The age of the first entry of the log.",
                  [](Source source) { return source.log_age_seconds; });
}

void add_states(Text &text) {
  text.family("target_state", "gauge", "1 for the state that the target is in.");
  text.each_target([&](const TargetReport &target, const std::string &labels) {
    for (const char *state : kStates)
      text.sample(labels + "," + label("state", state), target.state == state);
    if (std::find(kStates.begin(), kStates.end(), target.state) == kStates.end())
      text.sample(labels + "," + label("state", target.state), true);
  });
}

void add_targets(Text &text) {
  using Target = const TargetReport &;
  add_states(text);
  text.of_targets("target_position_entry", "gauge", "The next log entry to apply.",
                  [](Target target) { return target.position; });
  text.of_targets("target_lag_entries", "gauge", "Log entries that are not applied yet.",
                  [](Target target) { return target.lag_entries; });
  text.of_targets("target_lag_bytes", "gauge", "Their size.",
                  [](Target target) { return target.lag_bytes; });
  text.of_targets("target_lag_seconds", "gauge", "The age of the first of them.",
                  [](Target target) { return target.lag_seconds; });
  text.of_targets("target_applied_total", "counter", "Log entries that were applied.",
                  [](Target target) { return target.applied; });
  text.of_targets("target_failures_total", "counter", "Tries to apply an entry that failed.",
                  [](Target target) { return target.failures; });
  text.of_targets("target_skipped_total", "counter", "Log entries that were stepped over.",
                  [](Target target) { return target.skipped; });
  text.of_targets("target_gaps", "gauge", "Gaps that are declared and not healed yet.",
                  [](Target target) { return target.gaps; });
  text.of_some_targets("target_progress_ratio", "How much of a copy or a healing is done.",
                       &TargetReport::progress);
  text.of_some_targets("target_left_seconds", "How long that is expected to last still.",
                       &TargetReport::seconds_left);
  text.of_some_targets("target_read_bytes_per_second",
                       "How much it reads of the source meanwhile, on average.",
                       &TargetReport::bytes_per_second);
}

Error cannot_write(const std::string &file, int err) {
  return system_error(err, "cannot write the metrics file " + printable(file));
}

/* 0 or an error number, after which there is no new file. */
int write_new(const std::string &name, const std::string &text) {
  // One left by a service that was killed; never one that is written through a link.
  if (unlink(name.c_str()) != 0 && errno != ENOENT) return errno;
  UniqueFd fd(open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  if (!fd) return errno;
  int err = fchmod(fd.get(), 0644) == 0 ? 0 : errno;  // whatever the umask is
  if (err == 0) err = write_text(fd.get(), text);
  if (const int close_error = fd.close(); err == 0) err = close_error;
  if (err != 0) unlink(name.c_str());
  return err;
}

}  // namespace

std::string metrics_text(const ServiceReport &report) {
  Text text(report);
  add_service(text, report);
  add_sources(text);
  add_targets(text);
  return text.take();
}

Result<void> write_metrics(const std::string &file, const ServiceReport &report) {
  // rename() would replace a device as well.
  struct stat status;
  if (lstat(file.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
    return Error{-EINVAL, "cannot write the metrics file " + printable(file) +
                              ": there is something that is no regular file: name another"};
  const std::string fresh = file + ".new";
  if (const int err = write_new(fresh, metrics_text(report)); err != 0)
    return cannot_write(file, err);
  if (rename(fresh.c_str(), file.c_str()) == 0) return {};
  const int err = errno;
  unlink(fresh.c_str());
  return cannot_write(file, err);
}

}  // namespace tarn
