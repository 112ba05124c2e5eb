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

// Wrong texts such as "[=" fail assertions of the library although the code behind these reports
// them; with NDEBUG, clang would take the assertions for granted.
#undef NDEBUG
#define TOML_ASSERT(expr) static_assert(true)
// The deepest valid file has four levels. The library recurses for each.
#define TOML_EXCEPTIONS 0
#define TOML_MAX_NESTED_VALUES 8
#define TOML_ENABLE_FORMATTERS 0
#include <toml++/toml.h>

#include "base/run_dir.h"
#include "base/text.h"
#include "base/text_file.h"
#include "base/unique_fd.h"
#include "client/paths.h"
#include "client/workdir.h"
#include "mirrord/config/names.h"
#include "mirrord/state.h"
#include "module/os_public/Include/ox_msg.h"

namespace tarn {
namespace {

constexpr off_t kFileMax = 1 << 20;
constexpr std::ptrdiff_t kDotsInLineMax = 200;
// The log is kept in segments of 16 MiB, of which the last one is never released.
constexpr std::uint64_t kLogLimitMin = std::uint64_t{64} << 20;
constexpr std::uint64_t kBytesPerSecondMin = 4096;

/* A value and the line that it stands in. */
template <class T>
struct Given {
  T value;
  int line;
};

struct Problem {
  int line; /* 0: of the whole file */
  std::string text;
};
using Problems = std::vector<Problem>;

int line_of(const toml::source_region &region) {
  return static_cast<int>(region.begin.line);
}

std::string_view type_name(toml::node_type type) {
  switch (type) {
    case toml::node_type::table:
      return "a table";
    case toml::node_type::array:
      return "an array";
    case toml::node_type::string:
      return "a string";
    case toml::node_type::integer:
      return "an integer";
    case toml::node_type::floating_point:
      return "a number with a fraction";
    case toml::node_type::boolean:
      return "true or false";
    default:
      return "a date or a time";
  }
}

/* "N", or "N KiB" and so on. Nothing if it is no such text or too large. */
std::optional<std::uint64_t> parse_size(std::string_view text) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc{}) return std::nullopt;
  std::string_view unit(end, static_cast<std::size_t>(text.data() + text.size() - end));
  const bool blank = unit.starts_with(' ');
  if (blank) unit.remove_prefix(1);
  constexpr std::string_view kUnits[] = {"", "KiB", "MiB", "GiB", "TiB"};
  const auto *const found = std::find(std::begin(kUnits), std::end(kUnits), unit);
  if (found == std::end(kUnits) || (blank && unit.empty())) return std::nullopt;
  const auto shift = 10 * (found - kUnits);
  constexpr std::uint64_t kMost = std::numeric_limits<std::int64_t>::max();
  if (number > kMost >> shift) return std::nullopt;
  return number << shift;
}

std::string size_text(std::uint64_t bytes) {
  return bytes % (1 << 20) == 0 ? fmt::format("{} MiB", bytes >> 20)
                                : fmt::format("{} KiB", bytes >> 10);
}

/* Without a look at the file system. */
std::string plain_path(const std::string &path) {
  std::string plain = std::filesystem::path(path).lexically_normal().string();
  while (plain.size() > 1 && plain.ends_with('/')) plain.pop_back();
  return plain;
}

/* A table of the file. Remembers the keys that were asked for; others are unknown. */
class Section {
 public:
  /* `table` may be null: all keys are missing. */
  Section(const toml::table *table, std::string name, Problems &problems)
      : table_(table), name_(std::move(name)), problems_(problems) {}

  int line() const { return table_ ? line_of(table_->source()) : 0; }
  void problem(int line, std::string text) { problems_.push_back({line, std::move(text)}); }

  const toml::node *find(std::string_view key) {
    if (std::find(known_.begin(), known_.end(), key) == known_.end()) known_.push_back(key);
    return table_ ? table_->get(key) : nullptr;
  }

  void wrong_type(std::string_view key, const toml::node &node, std::string_view expected) {
    problem(line_of(node.source()),
            fmt::format("{} is {}; expected {}", key, type_name(node.type()), expected));
  }

  void missing(std::string_view key, std::string_view expected) {
    problem(line(), fmt::format("{} has no {}; expected {}", name_, key, expected));
  }

  std::optional<Given<std::string>> text(std::string_view key, std::string_view expected) {
    const toml::node *node = find(key);
    if (!node) return std::nullopt;
    return text_of(key, *node, expected);
  }

  std::optional<Given<std::string>> text_of(std::string_view key, const toml::node &node,
                                            std::string_view expected) {
    const toml::value<std::string> *string = node.as_string();
    if (!string) return wrong_type(key, node, expected), std::nullopt;
    const int line = line_of(node.source());
    const std::string &value = string->get();
    if (value.empty())
      return problem(line, fmt::format("{} is empty; expected {}", key, expected)), std::nullopt;
    if (value.find('\0') != std::string::npos)
      return problem(line, fmt::format("{} holds a NUL byte; expected {}", key, expected)),
             std::nullopt;
    return Given<std::string>{value, line};
  }

  /* What cannot be looked up now may be on a file system that does not answer. */
  enum class LookUp { kNow, kPerhapsLater };

  /* An absolute path, made canonical. */
  std::optional<Given<std::string>> path(std::string_view key, std::string_view expected,
                                         LookUp look_up = LookUp::kNow) {
    auto given = text(key, expected);
    if (!given) return std::nullopt;
    if (given->value[0] != '/') {
      problem(given->line, fmt::format("{} {} is not absolute; expected {}", key,
                                       printable(given->value), expected));
      return std::nullopt;
    }
    auto whole = whole_path(given->value);
    if (!whole && look_up == LookUp::kPerhapsLater) whole = plain_path(given->value);
    if (!whole) {
      problem(given->line, fmt::format("{}: {}; expected {}", key, whole.error().text, expected));
      return std::nullopt;
    }
    return Given<std::string>{std::move(*whole), given->line};
  }

  /* Bytes, with a unit or without. */
  std::optional<std::uint64_t> size(std::string_view key, std::uint64_t least) {
    constexpr std::string_view kForms =
        "bytes, or a whole number of KiB, MiB, GiB or TiB, for example \"512 MiB\"";
    const toml::node *node = find(key);
    if (!node) return std::nullopt;
    std::optional<std::uint64_t> bytes;
    std::string shown;
    if (const auto *integer = node->as_integer()) {
      shown = std::to_string(integer->get());
      if (integer->get() >= 0) bytes = static_cast<std::uint64_t>(integer->get());
    } else if (const auto *string = node->as_string()) {
      shown = printable(string->get());
      bytes = parse_size(string->get());
    } else {
      return wrong_type(key, *node, kForms), std::nullopt;
    }
    const int line = line_of(node->source());
    if (!bytes)
      problem(line, fmt::format("{} {} is no size; expected {}", key, shown, kForms));
    else if (*bytes < least)
      problem(line, fmt::format("{} {} is too small; expected at least {}", key, shown,
                                size_text(least)));
    else
      return bytes;
    return std::nullopt;
  }

  std::optional<std::uint64_t> count(std::string_view key, std::int64_t most) {
    const std::string expected = fmt::format("a whole number from 1 to {}", most);
    const toml::node *node = find(key);
    if (!node) return std::nullopt;
    const toml::value<std::int64_t> *integer = node->as_integer();
    if (!integer) return wrong_type(key, *node, expected), std::nullopt;
    if (integer->get() >= 1 && integer->get() <= most)
      return static_cast<std::uint64_t>(integer->get());
    problem(line_of(node->source()),
            fmt::format("{} is {}; expected {}", key, integer->get(), expected));
    return std::nullopt;
  }

  Section table(std::string_view key) {
    const toml::node *node = find(key);
    std::string name = fmt::format("[{}]", key);
    if (node && !node->is_table()) wrong_type(key, *node, fmt::format("a table {}", name));
    return Section(node ? node->as_table() : nullptr, std::move(name), problems_);
  }

  /* The tables that are written [[NAME]], at least one. */
  std::vector<Section> tables(std::string_view key, const std::string &name) {
    const std::string expected = fmt::format("at least one table {}", name);
    std::vector<Section> sections;
    const toml::node *node = find(key);
    const toml::array *array = node ? node->as_array() : nullptr;
    if (node && !array) return wrong_type(key, *node, expected + ", in two brackets"), sections;
    if (!array || array->empty()) return missing(key, expected), sections;
    for (const toml::node &element : *array) {
      if (const toml::table *table = element.as_table())
        sections.emplace_back(table, name, problems_);
      else
        wrong_type(key, element, expected);
    }
    return sections;
  }

  const toml::array *array(std::string_view key, std::string_view expected) {
    const toml::node *node = find(key);
    if (node && !node->is_array()) wrong_type(key, *node, expected);
    return node ? node->as_array() : nullptr;
  }

  void end() {
    if (!table_) return;
    for (const auto &[key, node] : *table_) {
      if (std::find(known_.begin(), known_.end(), key.str()) != known_.end()) continue;
      problem(line_of(key.source()), fmt::format("{} has no key {}; expected one of {}", name_,
                                                 printable(key.str()), fmt::join(known_, ", ")));
    }
  }

 private:
  const toml::table *table_;
  std::string name_;
  Problems &problems_;
  std::vector<std::string_view> known_{};
};

using NameLines = std::map<std::string, int>;

std::string read_name(Section &section, NameLines &taken) {
  const auto name = section.text("name", kConfigNameForm);
  if (!name) {
    if (!section.find("name")) section.missing("name", kConfigNameForm);
    return "";
  }
  if (!good_config_name(name->value)) {
    section.problem(name->line, fmt::format("name {} is no name; expected {}",
                                            printable(name->value), kConfigNameForm));
    return "";
  }
  if (const auto [old, added] = taken.emplace(name->value, name->line); !added)
    section.problem(name->line, fmt::format("name {} is taken by line {}; expected another one",
                                            name->value, old->second));
  return name->value;
}

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
  for (Section &target : section.tables("target", "[[source.target]]"))
    source.targets.push_back(read_target(target, target_names));
  section.end();
  return source;
}

void read_root(const toml::table &table, Config &config, Problems &problems) {
  Section root(&table, "the file", problems);
  if (const auto state = root.path("state", "the absolute path of the service's own directory"))
    config.state_directory = state->value;
  else if (auto known = state_directory(); !known)
    root.problem(0, known.error().text + "; expected a key state");
  else if (auto whole = whole_path(*known + "/mirrord"); !whole)
    root.problem(0, whole.error().text + "; expected a key state");
  else
    config.state_directory = std::move(*whole);

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
  config.control_socket = socket ? std::move(socket->value) : run_directory() + "/mirrord.sock";
  control.end();

  NameLines names;
  for (Section &source : root.tables("source", "[[source]]"))
    config.sources.push_back(read_source(source, names, log_limit));
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
  const toml::parse_result parsed = toml::parse(std::string_view(text));
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
