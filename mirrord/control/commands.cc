// SPDX-License-Identifier: GPL-2.0
#include "mirrord/control/commands.h"

#include <algorithm>
#include <cerrno>
#include <iostream>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "base/text.h"
#include "mirrord/control/client.h"
#include "mirrord/control/progress_line.h"
#include "mirrord/control/report_text.h"

namespace tarn {
namespace {

using Json = nlohmann::ordered_json;
using Kind = CallOutcome::Kind;

enum Exit { kGood = 0, kProblems = 1, kUsage = 2, kUnreachable = 3 };

constexpr std::chrono::seconds kReportTime{30};
constexpr std::chrono::seconds kWaitMargin{30}; /* for the service to say that time is up */
constexpr char kTargetHelp[] = "SOURCE or SOURCE/TARGET, as in the configuration";

int fail(const std::string &text, Exit exit) {
  std::cerr << "mirrord: " + one_line(text) + "\n";
  return exit;
}

std::string text_of(const TargetName &name) {
  return name.target.empty() ? name.source : name.source + "/" + name.target;
}

/* Nothing: all. An empty text is a mistake, in a script perhaps. */
Result<TargetName> parse_name(const std::optional<std::string> &given) {
  if (!given) return TargetName{};
  const std::string &text = *given;
  const std::size_t slash = text.find('/');
  TargetName name{text.substr(0, slash), ""};
  if (slash != std::string::npos) name.target = text.substr(slash + 1);
  const bool part_missing = slash != std::string::npos && name.target.empty();
  if (name.source.empty() || part_missing || name.target.find('/') != std::string::npos)
    return Error{-EINVAL, printable(text) + " is not of the form SOURCE or SOURCE/TARGET"};
  return name;
}

std::vector<TargetName> names_in(const ServiceReport &report) {
  std::vector<TargetName> names;
  for (const SourceReport &source : report.sources) {
    for (const TargetReport &target : source.targets) names.push_back({source.name, target.name});
  }
  return names;
}

/* Is the target a directory of the service's own host? */
bool is_here(const ServiceReport &report, const TargetName &name) {
  for (const SourceReport &source : report.sources) {
    for (const TargetReport &target : source.targets) {
      if (source.name == name.source && target.name == name.target)
        return target.kind == kDirectoryKind;
    }
  }
  return false;
}

/* The targets that are meant. Error: -ENOENT. */
Result<std::vector<TargetName>> targets_of(const ServiceReport &report, const TargetName &meant) {
  const std::vector<TargetName> all = names_in(report);
  std::vector<TargetName> found;
  std::string known;
  for (const TargetName &name : all) {
    known += (known.empty() ? "" : ", ") + printable(text_of(name));
    if ((meant.source.empty() || name.source == meant.source) &&
        (meant.target.empty() || name.target == meant.target))
      found.push_back(name);
  }
  if (found.empty() && all.empty()) return Error{-ENOENT, "the service has no targets"};
  if (found.empty())
    return Error{-ENOENT, fmt::format("there is no target of the name {}; there are: {}",
                                      printable(text_of(meant)), known)};
  return found;
}

/* One connection, and what its errors mean for the exit status. */
class Session {
 public:
  explicit Session(ControlClient client) : client_(std::move(client)) {}

  int exit() const { return exit_; }

  /* Nothing after an error, which has been told. */
  std::optional<Json> call(const Request &request, LineStream::Deadline deadline,
                           const CallListener &listener, Exit failed = kProblems) {
    CallOutcome outcome = client_.call(request, deadline, listener);
    if (outcome.kind == Kind::kDone) return std::move(outcome.result);
    if (outcome.kind == Kind::kUnreachable)
      exit_ = fail(outcome.error.text, kUnreachable);
    else if (outcome.error.code == -ENOENT && failed == kProblems)
      exit_ = fail(outcome.error.text, kUsage);
    else
      exit_ = fail(outcome.error.text, failed);
    reached_ = outcome.kind != Kind::kUnreachable;
    return std::nullopt;
  }

  std::optional<Json> report_json() {
    return call({.verb = Verb::kStatus, .name = {}}, LineStream::Clock::now() + kReportTime, {});
  }

  std::optional<ServiceReport> report() {
    const auto json = report_json();
    if (!json) return std::nullopt;
    auto report = parse_report(*json);
    if (report) return std::move(*report);
    exit_ = fail(report.error().text + ": restart the service after an upgrade", kUnreachable);
    return std::nullopt;
  }

  /* Those that are directories of this host: all others are not for this service to look into. */
  std::optional<std::vector<TargetName>> directories(const TargetName &meant) {
    const auto now = report();
    if (!now) return std::nullopt;
    auto found = targets_of(*now, meant);
    if (found) std::erase_if(*found, [&](const TargetName &name) { return !is_here(*now, name); });
    if (found && (!found->empty() || meant.source.empty())) return std::move(*found);
    exit_ = found ? fail(printable(text_of(meant)) +
                             " is on other hosts: ask mirrord there, with their configuration",
                         kUsage)
                  : fail(found.error().text, kUsage);
    return std::nullopt;
  }

  bool reached() const { return reached_; }

 private:
  ControlClient client_;
  int exit_ = kGood;
  bool reached_ = true;
};

int status(Session &session, bool as_json) {
  const auto json = session.report_json();
  if (!json) return session.exit();
  const auto report = parse_report(*json);
  if (!report)
    return fail(report.error().text + ": restart the service after an upgrade", kUnreachable);
  if (as_json)
    std::cout << json->dump(2, ' ', false, Json::error_handler_t::replace) << "\n";
  else
    std::cout << status_text(*report);
  return problems(*report).empty() ? kGood : kProblems;
}

int targets(Session &session) {
  const auto report = session.report();
  if (!report) return session.exit();
  std::cout << targets_text(*report);
  return kGood;
}

int metrics(Session &session) {
  const auto result = session.call({.verb = Verb::kMetrics, .name = {}},
                                   LineStream::Clock::now() + kReportTime, {});
  if (!result) return session.exit();
  const auto text = result->find("text");
  if (text == result->end() || !text->is_string())
    return fail("the service's answer has no text: restart it after an upgrade", kUnreachable);
  std::cout << text->get<std::string>();
  return kGood;
}

int wait(Session &session, const TargetName &name, std::chrono::seconds timeout) {
  ProgressLine line("wait");
  const CallListener listener{
      .progress = [&line](double done, const std::string &what) { line.show(done, what); },
      .difference = {}};
  const Request request{.verb = Verb::kWait, .name = name, .timeout = timeout};
  const auto deadline = LineStream::Clock::now() + timeout + kWaitMargin;
  return session.call(request, deadline, listener) ? kGood : session.exit();
}

/* pause, resume, resync. */
int change(Session &session, Verb verb, const TargetName &name) {
  return session.call({.verb = verb, .name = name}, {}, {}) ? kGood : session.exit();
}

int skip(Session &session, const TargetName &meant) {
  const auto names = session.directories(meant);
  if (!names) return session.exit();
  if (names->size() != 1)
    return fail(fmt::format("{} has {} targets: name one as SOURCE/TARGET",
                            printable(text_of(meant)), names->size()),
                kUsage);
  const auto result = session.call({.verb = Verb::kSkip, .name = names->front()}, {}, {});
  if (!result) return session.exit();
  const auto skipped = result->find("skipped");
  std::cout << fmt::format("{}: skipped {}\n", printable(text_of(names->front())),
                           skipped != result->end() && skipped->is_string()
                               ? one_line(skipped->get<std::string>())
                               : "an entry");
  return kGood;
}

/* A replica that is gone may be unknown to the report of its target. */
int retire(Session &session, const TargetName &name) {
  if (name.target.find(':') == std::string::npos)
    return fail(printable(text_of(name)) + " is not of the form SOURCE/TARGET:REPLICA", kUsage);
  return change(session, Verb::kRetire, name);
}

std::string summary(const std::string &name, Verb verb, std::uint64_t count) {
  if (verb == Verb::kRepair)
    return count == 0 ? fmt::format("{}: equal now\n", name)
                      : fmt::format("{}: {} differences are left\n", name, count);
  return count == 0 ? fmt::format("{}: equal\n", name)
                    : fmt::format("{}: {} differences; 'mirrord repair {}' mends them\n", name,
                                  count, name);
}

int compare_one(Session &session, Verb verb, const TargetName &target) {
  const std::string name = printable(text_of(target));
  std::uint64_t count = 0;
  ProgressLine line(name);
  const CallListener listener{
      .progress = [&](double done, const std::string &what) { line.show(done, what); },
      .difference =
          [&](const Difference &found) {
            line.clear();
            count += found.persists();
            const std::string other = found.other.empty() ? "" : printable(found.other) + " ";
            std::cout << fmt::format("{}\t{}\t{}\t{}{}\n", name, printable(found.path),
                                     one_line(found.kind), other, one_line(found.detail));
          }};
  const auto result = session.call({.verb = verb, .name = target}, {}, listener, kUnreachable);
  line.clear();
  if (!result) return session.exit();
  std::cout << summary(name, verb, count) << std::flush;
  return count == 0 ? kGood : kProblems;
}

/* verify and repair of all directories that are meant, one after the other. */
int compare(Session &session, Verb verb, const TargetName &meant) {
  const auto names = session.directories(meant);
  if (!names) return session.exit();
  if (names->empty())
    std::cout << "no target is on this host: ask mirrord on the hosts of the replicas\n";
  int worst = kGood;
  for (const TargetName &name : *names) {
    worst = std::max(worst, compare_one(session, verb, name));
    if (!session.reached()) break;
  }
  return worst;
}

}  // namespace

class ControlCommands::Impl {
 public:
  Impl(CLI::App &app, FindSocket find_socket) : find_socket_(std::move(find_socket)) {
    auto *status_verb = add(app, "status", "Show the service, its sources and its targets");
    status_verb->add_flag("--json", json_, "Print the whole report as JSON");
    when(status_verb, [this](Session &session) { return status(session, json_); });
    when(add(app, "targets", "List the targets and their states"), targets);
    when(add(app, "metrics", "Print what is counted, as Prometheus reads it"), metrics);

    auto *wait_verb =
        add(app, "wait", "Wait until everything that was changed before is in the targets");
    wait_verb->add_option("TARGET", name_, kTargetHelp);
    wait_verb->add_option("--timeout", timeout_, "How long at most, in seconds (default 300)")
        ->type_name("SECONDS")
        ->check(CLI::Range(0L, kTimeoutMax / std::chrono::seconds(1)));
    when_named(wait_verb, [this](Session &session, const TargetName &name) {
      return wait(session, name, std::chrono::seconds(timeout_));
    });
    add_changes(app);
    add_comparisons(app);
  }

  std::optional<int> run() {
    if (!chosen_) return std::nullopt;
    const int exit = run_chosen();
    std::cout.flush();
    if (!std::cout) return fail("cannot write to the standard output", kProblems);
    return exit;
  }

 private:
  using Work = std::function<int(Session &)>;
  using NamedWork = std::function<int(Session &, const TargetName &)>;

  CLI::App *add(CLI::App &app, const char *verb, const char *about) {
    auto *command = app.add_subcommand(verb, about);
    auto *config =
        command->add_option("--config", place_.config, "The configuration of the service")
            ->type_name("FILE");
    auto *state = command
                      ->add_option("--state-directory", place_.state_directory,
                                   "The state directory that 'mirrord --source' was given")
                      ->type_name("DIR")
                      ->excludes(config);
    command->add_option("--socket", socket_, "Its control socket, if the configuration is not here")
        ->type_name("PATH")
        ->excludes(config)
        ->excludes(state);
    return command;
  }

  void when(CLI::App *command, Work work) {
    when_named(command, [work = std::move(work)](Session &session, const TargetName &) {
      return work(session);
    });
  }
  void when_named(CLI::App *command, NamedWork work) {
    command->callback([this, work = std::move(work)] { chosen_ = work; });
  }

  void add_changes(CLI::App &app) {
    const auto add_change = [&](const char *word, Verb verb, const char *about) {
      auto *command = add(app, word, about);
      when_named(command, [verb](Session &session, const TargetName &name) {
        return change(session, verb, name);
      });
      return command->add_option("TARGET", name_, kTargetHelp);
    };
    add_change("pause", Verb::kPause, "Apply nothing until 'resume'; the log goes on growing");
    add_change("resume", Verb::kResume, "Go on after 'pause'");
    add_change("resync", Verb::kResync, "Compare a target with its source anew, and copy")
        ->required();
    auto *command = add(app, "skip", "Step over the entry that holds a target; leaves a gap");
    command->add_option("TARGET", name_, "SOURCE/TARGET, as in the configuration")->required();
    when_named(command, skip);
    command = add(app, "retire", "Forget a replica that does not come back; keeps nothing for it");
    command->add_option("REPLICA", name_, "SOURCE/TARGET:REPLICA, as 'mirrord targets' shows it")
        ->required();
    when_named(command, retire);
  }

  void add_comparisons(CLI::App &app) {
    const auto add_comparison = [&](const char *word, Verb verb, const char *about) {
      auto *command = add(app, word, about);
      command->add_option("TARGET", name_, kTargetHelp);
      when_named(command, [verb](Session &session, const TargetName &name) {
        return compare(session, verb, name);
      });
    };
    add_comparison("verify", Verb::kVerify, "Compare targets with their sources; changes nothing");
    add_comparison("repair", Verb::kRepair, "Compare, and mend what differs");
  }

  int run_chosen() {
    const auto name = parse_name(name_);
    if (!name) return fail(name.error().text, kUsage);
    std::string path = socket_;
    if (path.empty()) {
      auto found = find_socket_(place_);
      if (!found) return fail(found.error().text, kUsage);
      path = std::move(*found);
    }
    auto client = ControlClient::connect(path);
    if (!client) return fail(client.error().text, kUnreachable);
    Session session(std::move(*client));
    return chosen_(session, *name);
  }

  const FindSocket find_socket_;
  Place place_;
  std::string socket_;
  std::optional<std::string> name_;
  long timeout_ = 300;
  bool json_ = false;
  NamedWork chosen_;
};

ControlCommands::ControlCommands(CLI::App &app, FindSocket find_socket)
    : impl_(std::make_unique<Impl>(app, std::move(find_socket))) {}
ControlCommands::~ControlCommands() = default;

std::optional<int> ControlCommands::run() {
  return impl_->run();
}

}  // namespace tarn
