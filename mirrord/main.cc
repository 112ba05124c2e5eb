// SPDX-License-Identifier: GPL-2.0
// mirrord: replays the changes that programs make through a tarn mount in a replica directory.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <iostream>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "base/standard_fds.h"
#include "base/text.h"
#include "base/version.h"
#include "client/control.h"
#include "client/daemon_report.h"
#include "client/paths.h"
#include "client/site.h"
#include "client/workdir.h"
#include "mirrord/catch_up.h"
#include "mirrord/config/config.h"
#include "mirrord/control/commands.h"
#include "mirrord/mirror.h"
#include "mirrord/overlap.h"
#include "mirrord/service/run_command.h"
#include "mirrord/state.h"
#include "mirrord/touch.h"

namespace {

using namespace tarn;

enum Exit { kExitOk = 0, kExitProblems = 1, kExitUsage = 2, kExitChannel = 3 };

constexpr char kAbout[] =
    "mirrord replays the changes that programs make through a tarn mount in other directories.\n"
    "'mirrord run' is the service: it copies what is there, follows what changes and survives "
    "restarts. With --source and --replica it follows the changes into one copy, in the "
    "foreground, "
    "and says on stderr what it could not apply.";

constexpr char kConfigFile[] = "/etc/tarn/mirrord.toml";

constexpr char kExample[] =
    "Example, with /data mounted through tarn and a rule that includes it:\n"
    "  mirrord --source /data --replica /copy --status-file /run/mirrord.json &\n"
    "  mirrord --catch-up --status-file /run/mirrord.json    waits until /copy is complete\n"
    "The replica must be a copy of the source when mirrord starts. The manual: man mirrord.";

struct Arguments {
  std::string source, replica, status_file;
  std::vector<std::string> rules;
  bool take_over = false, catch_up = false;
  int timeout = 300;
};

int fail(const std::string &text, Exit code) {
  std::cerr << "mirrord: " + text + "\n";
  return code;
}

bool ignored(int signal) {
  struct sigaction action;
  return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

void note(const std::string &text) {
  std::cerr << "mirrord: note: " + text + "\n";
}

/* Does the rule include anything of the source? */
bool is_about(const std::string &source, const RuleDirectories &directories) {
  return std::any_of(directories.include.begin(), directories.include.end(),
                     [&source](const std::string &include) {
                       return path_below(source, include) || path_below(include, source);
                     });
}

void note_doubtful_rules(const std::vector<Rule> &rules, const MirrorOptions &options) {
  std::set<Uuid> absent = options.rules;
  bool any = false;
  for (const Rule &rule : rules) {
    if (!options.rules.empty() && !options.rules.contains(rule.uuid)) continue;
    absent.erase(rule.uuid);
    const RuleDirectories directories = read_workdir(rule.workdir).directories;
    if (!is_about(options.source, directories)) continue;
    any = true;
    for (const std::string &include : directories.include) {
      if (access(include.c_str(), F_OK) != 0 && errno == ENOENT)
        note(fmt::format("rule {} includes {}, which does not exist here", to_string(rule.uuid),
                         printable(include)));
    }
  }
  for (const Uuid &uuid : absent)
    note(fmt::format("there is no rule {}: nothing is replicated for it", to_string(uuid)));
  if (!any && absent.empty())
    note(
        fmt::format("no rule includes anything of {}: nothing is replicated; 'tarn rule add "
                    "--include' adds one",
                    printable(options.source)));
}

/* Connects for each call: rules are added and deleted while mirrord runs. */
RuleLists rule_lists(const Site &site) {
  return [site](const Uuid &uuid) -> std::optional<RuleDirectories> {
    auto control = ControlChannel::connect(site);
    if (!control) return std::nullopt;
    const auto rule = control->get_rule(uuid);
    if (!rule) return std::nullopt;
    return read_workdir(rule->workdir).directories;
  };
}

/* Notes mistakes that would make mirrord replicate nothing without an error. */
void note_doubtful_options(const Site &site, const MirrorOptions &options) {
  const std::string &source = options.source;
  if (access(source.c_str(), F_OK) != 0 && errno == ENOENT)
    return note(fmt::format("the source {} does not exist here", printable(source)));
  auto control = ControlChannel::connect(site);
  if (!control) return;
  const auto mounts = control->mounts();
  if (!mounts) return;
  if (const auto lower = meant_lower_path(*mounts, source))
    return note(
        fmt::format("the source {} is a path of the mount; records are about the lower "
                    "directory: you may have meant {}",
                    printable(source), printable(*lower)));
  if (const auto rules = control->list_rules()) note_doubtful_rules(*rules, options);
}

/* For the rules in `wanted`, or for all rules if it is empty. */
Result<Resumption::Touched> touch_rules(const Site &site, const std::set<Uuid> &wanted) {
  auto control = ControlChannel::connect(site);
  if (!control) return control.error();
  const auto rules = control->list_rules();
  if (!rules) return rules.error();
  const auto mounts = control->mounts();
  if (!mounts) return mounts.error();
  Resumption::Touched touched_rules;
  for (const Rule &rule : *rules) {
    if (!wanted.empty() && !wanted.contains(rule.uuid)) continue;
    if (const auto touched = touch(rule, *mounts); touched)
      touched_rules.rules.insert(rule.uuid);
    else
      touched_rules.failed[rule.uuid] = touched.error().text;
  }
  return touched_rules;
}

/*
 * Makes each rule number a record first: only a rule's next record shows that it was deleted and
 * added again. This is done here and not by the running mirrord, which must not wait for records
 * that it has to receive.
 */
int wait_for_another(const Arguments &arguments) {
  if (arguments.status_file.empty())
    return fail("--catch-up needs --status-file, the one that the running mirrord was given",
                kExitUsage);
  const auto touched_rules = touch_rules(find_site(), {});
  const auto state = catch_up(arguments.status_file, std::chrono::seconds(arguments.timeout));
  if (!state) return fail(state.error().text, kExitChannel);
  if (!touched_rules)
    note(fmt::format(
        "it is unknown whether a rule was deleted and added again since its last change "
        "({})",
        touched_rules.error().text));
  if (state->problems != 0)
    return fail(
        fmt::format("caught up, but {} things went wrong before: see mirrord's messages and {}",
                    state->problems, printable(arguments.status_file)),
        kExitProblems);
  return kExitOk;
}

/* Empty if the module cannot be reached. */
std::vector<Mount> mounts_there(const Site &site) {
  auto control = ControlChannel::connect(site);
  if (!control) return {};
  const auto mounts = control->mounts();
  return mounts ? *mounts : std::vector<Mount>();
}

int cannot_close(const std::string &replica, const Error &error) {
  return fail(fmt::format("cannot keep others out of {}: {}", printable(replica), error.text),
              kExitProblems);
}

int mirror(const Arguments &arguments) {
  if (arguments.source.empty() || arguments.replica.empty())
    return fail("--source and --replica must be given: see 'mirrord --help'", kExitUsage);
  const auto source = whole_path(arguments.source), replica_path = whole_path(arguments.replica);
  if (!source) return fail(source.error().text, kExitUsage);
  if (!replica_path) return fail(replica_path.error().text, kExitUsage);
  MirrorOptions options{.source = *source, .replica = *replica_path};
  if (!arguments.status_file.empty()) {
    // Canonical, so that replacing the file does not replace a symbolic link to it.
    const auto file = whole_path(arguments.status_file);
    if (!file) return fail(file.error().text, kExitUsage);
    options.status_file = *file;
  }
  const Site site = find_site();
  if (const auto separate =
          check_overlap(options.source, options.replica, mount_table_or(mounts_there(site)));
      !separate)
    return fail(separate.error().text, kExitUsage);
  for (const std::string &rule : arguments.rules) {
    const auto uuid = parse_uuid(rule);
    if (!uuid) return fail(printable(rule) + " is not the UUID of a rule", kExitUsage);
    options.rules.insert(*uuid);
  }
  umask(0);  // modes are the records'
  auto replica = Replica::open(options.replica);
  if (!replica) return fail(replica.error().text, kExitProblems);
  auto state = StateFile::open(options.source, options.replica);
  if (!state) return fail(state.error().text, kExitProblems);
  // An ignored SIGHUP stays ignored (nohup).
  auto signals = ignored(SIGHUP) ? SignalPipe::open({SIGTERM, SIGINT, SIGUSR1})
                                 : SignalPipe::open({SIGTERM, SIGINT, SIGHUP, SIGUSR1});
  if (!signals) return fail(signals.error().text, kExitProblems);
  // Before the registration: it ends a running daemon for good.
  if (const auto writable = check_status_file(options.status_file); !writable)
    return fail(writable.error().text, kExitProblems);
  const auto must_close_to_others = replica->must_close_to_others();
  if (!must_close_to_others) return cannot_close(options.replica, must_close_to_others.error());
  auto channel =
      DaemonChannel::open(site, arguments.take_over ? Claim::kTakeOver : Claim::kRefuseIfTaken);
  if (!channel) {
    const Error &error = channel.error();
    return fail(error.code == -EBUSY ? error.text + " with --take-over" : error.text, kExitChannel);
  }
  // Only after the registration: a refused start changes nothing.
  if (*must_close_to_others) {
    if (const auto closed = replica->close_to_others(); !closed)
      return cannot_close(options.replica, closed.error());
    note(
        fmt::format("{} has mode 0700 now: set-user-id files in it must not be run by others; "
                    "mount its file system nosuid if they are to read it",
                    printable(options.replica)));
  }
  note_doubtful_options(site, options);
  options.report_file = daemon_report_file(site);
  options.rule_lists = rule_lists(site);
  Resumption resumption{
      .state = std::move(*state),
      .touch_rules = [&site, rules = options.rules] { return touch_rules(site, rules); },
      .registered =
          [source = options.source, replica = options.replica] {
            std::cout << fmt::format("mirrord: registered; {} is replicated to {}\n",
                                     printable(source), printable(replica))
                      << std::flush;
          }};
  Mirror work(std::move(options), *replica, **channel, std::move(resumption));
  const auto end = work.run(**signals);
  if (end == Mirror::End::kClean) return kExitOk;
  if (end == Mirror::End::kChannel) return kExitChannel;
  if (work.status().problems() == 0) return kExitProblems;
  return fail(fmt::format("{} things went wrong: the replica may differ from the source",
                          work.status().problems()),
              kExitProblems);
}

Result<std::string> control_socket_of(const std::string &config_file) {
  const auto config = read_config(config_file.empty() ? kConfigFile : config_file);
  if (!config) return config.error();
  return config->control_socket;
}

}  // namespace

int main(int argc, char **argv) {
  hold_standard_descriptors();
  std::ios::sync_with_stdio(false);
  Arguments arguments;
  CLI::App app(kAbout, "mirrord");
  app.footer(kExample);
  app.set_version_flag("--version", version_line("mirrord"));
  app.require_subcommand(0, 1);
  std::string config_file = kConfigFile;
  CLI::App *run = app.add_subcommand("run", "Run the service of a configuration");
  CLI::App *check = app.add_subcommand("check", "Say whether a configuration is good");
  for (CLI::App *verb : {run, check})
    verb->add_option("--config", config_file, "The configuration")
        ->type_name("FILE")
        ->capture_default_str();
  ControlCommands commands(app, control_socket_of);
  app.add_option("--source", arguments.source, "The lower directory whose changes are replayed")
      ->type_name("DIR");
  app.add_option("--replica", arguments.replica, "The directory that they are replayed in")
      ->type_name("DIR");
  app.add_option("--rule", arguments.rules, "Only the records of these rules")
      ->type_name("UUID...")
      ->allow_extra_args(false)
      ->expected(1, 1000);
  app.add_option("--status-file", arguments.status_file, "Where to write the status; JSON")
      ->type_name("FILE");
  app.add_flag("--take-over", arguments.take_over,
               "Even if another daemon is registered: it gets no more records");
  app.add_flag("--catch-up", arguments.catch_up,
               "Do nothing but wait until the mirrord of the status file has applied everything "
               "changed so far");
  app.add_option("--timeout", arguments.timeout, "With --catch-up: how long to wait, in seconds")
      ->type_name("S");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    std::string text = error.what();
    std::replace(text.begin(), text.end(), '\n', ' ');
    return fail(text + ": 'mirrord --help' shows the usage", kExitUsage);
  }
  if (run->parsed()) return run_command(config_file);
  if (check->parsed()) return check_command(config_file);
  if (const auto status = commands.run()) return *status;
  return arguments.catch_up ? wait_for_another(arguments) : mirror(arguments);
}
