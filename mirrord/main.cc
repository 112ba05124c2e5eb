// SPDX-License-Identifier: GPL-2.0
// mirrord: replays the changes that programs make through a tarn mount in other directories.
#include <unistd.h>

#include <algorithm>
#include <iostream>

#include <CLI/CLI.hpp>

#include "base/standard_fds.h"
#include "base/version.h"
#include "client/paths.h"
#include "mirrord/config/config.h"
#include "mirrord/control/commands.h"
#include "mirrord/service/run_command.h"

namespace {

using namespace tarn;

constexpr int kExitUsage = 2;

constexpr char kAbout[] =
    "mirrord replays the changes that programs make through a tarn mount in other directories. It "
    "copies what is there, follows what changes and survives restarts.\n"
    "'mirrord run' is the service of a configuration. With --source and --replica it needs none: "
    "it replicates one directory to one other, in the foreground.";

constexpr char kConfigFile[] = "/etc/tarn/mirrord.toml";
constexpr char kReplicaFile[] = "/etc/tarn/replica.toml";

constexpr char kExample[] =
    "Example, with /data mounted through tarn:\n"
    "  mirrord --source /data --replica /copy &\n"
    "  mirrord wait    until /copy has all that was changed before\n"
    "The manual: man mirrord.";

int fail(const std::string &text) {
  std::cerr << "mirrord: " + text + "\n";
  return kExitUsage;
}

/* Of a host with a replica only, that one's. Without a configuration it is the socket of `mirrord
 * --source`. */
Result<std::string> control_socket_of(const ControlCommands::Place &place) {
  if (!place.state_directory.empty()) {
    const auto directory = whole_path(place.state_directory);
    if (!directory) return directory.error();
    return control_socket_in(*directory);
  }
  std::string file = place.config;
  if (file.empty()) file = access(kConfigFile, F_OK) == 0 ? kConfigFile : kReplicaFile;
  if (place.config.empty() && access(file.c_str(), F_OK) != 0) return default_control_socket();
  const auto config = read_config(file);
  if (!config) return config.error();
  return config->control_socket;
}

}  // namespace

int main(int argc, char **argv) {
  hold_standard_descriptors();
  std::ios::sync_with_stdio(false);
  PairArguments pair;
  bool take_over = false;
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
  std::string replica_file = kReplicaFile;
  CLI::App *replica = app.add_subcommand(
      "replica", "Run a replica of another host's source, which a stream leads to");
  replica->add_option("--config", replica_file, "The configuration")
      ->type_name("FILE")
      ->capture_default_str();
  ControlCommands commands(app, control_socket_of);
  app.add_option("--source", pair.source, "The lower directory that is replicated")
      ->type_name("DIR");
  app.add_option("--replica", pair.replica, "The directory that it is replicated to")
      ->type_name("DIR");
  app.add_option("--state-directory", pair.state_directory,
                 "Where the log and the position are kept, and the control socket")
      ->type_name("DIR");
  app.add_flag("--take-over", take_over,
               "Even if another daemon is registered: it gets no more records");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    std::string text = error.what();
    std::replace(text.begin(), text.end(), '\n', ' ');
    return fail(text + ": 'mirrord --help' shows the usage");
  }
  const bool pair_given =
      take_over || !pair.source.empty() || !pair.replica.empty() || !pair.state_directory.empty();
  if (pair_given && !app.get_subcommands().empty())
    return fail("a verb's options come behind it: see 'mirrord VERB --help'");
  if (run->parsed()) return run_command(config_file);
  if (replica->parsed()) return replica_command(replica_file);
  if (check->parsed()) return check_command(config_file);
  if (const auto status = commands.run()) return *status;
  if (pair.source.empty() || pair.replica.empty())
    return fail("--source and --replica must be given: see 'mirrord --help'");
  if (take_over) pair.claim = Claim::kTakeOver;
  return run_pair_command(pair);
}
