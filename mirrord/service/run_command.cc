// SPDX-License-Identifier: GPL-2.0
#include "mirrord/service/run_command.h"

#include <sys/stat.h>

#include <cerrno>
#include <csignal>

#include "base/text.h"
#include "mirrord/config/config.h"
#include "mirrord/service/journal.h"
#include "mirrord/service/manager.h"
#include "mirrord/service/replica_service.h"
#include "mirrord/service/service.h"

namespace tarn {
namespace {

enum Exit { kExitOk = 0, kExitFailed = 1, kExitConfiguration = 2, kExitChannel = 3 };

int fail(const std::string &text, Exit code) {
  say(Level::kError, "", text);
  return code;
}

bool ignored(int signal) {
  struct sigaction action;
  return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

/* An ignored SIGHUP stays ignored (nohup). */
Result<std::unique_ptr<SignalPipe>> ending_signals() {
  std::signal(SIGPIPE, SIG_IGN);
  return ignored(SIGHUP) ? SignalPipe::open({SIGTERM, SIGINT})
                         : SignalPipe::open({SIGTERM, SIGINT, SIGHUP});
}

/* Says what may be right later. */
Result<Config> usable_config(const std::string &file) {
  auto config = read_config(file);
  if (!config) return config;
  if (const auto checked = check_config(*config, machine_mount_table()); !checked)
    return checked.error();
  for (const std::string &note : config_notes(*config)) say(Level::kWarning, "", note);
  return config;
}

}  // namespace

int run_command(const std::string &config_file) {
  auto config = usable_config(config_file);
  if (!config) return fail(config.error().text, kExitConfiguration);
  if (config->replica)
    return fail(printable(config_file) + " is a replica's: 'mirrord replica' runs it",
                kExitConfiguration);
  umask(0);  // modes are the source's
  auto store = open_manager_store();
  auto signals = ending_signals();
  if (!signals) return fail(signals.error().text, kExitFailed);
  auto service = Service::open(std::move(*config), find_site(), {.store = std::move(store)});
  if (!service) return fail(service.error().text, kExitFailed);
  const auto ran = (*service)->run(**signals);
  return ran ? kExitOk : fail(ran.error().text, kExitFailed);
}

int replica_command(const std::string &config_file) {
  const auto config = usable_config(config_file);
  if (!config) return fail(config.error().text, kExitConfiguration);
  if (!config->replica)
    return fail(printable(config_file) + " has no table [replica]: 'mirrord run' runs it",
                kExitConfiguration);
  umask(0);  // modes are the source's
  auto signals = ending_signals();
  if (!signals) return fail(signals.error().text, kExitFailed);
  const auto ran = run_replica(*config, **signals);
  return ran ? kExitOk : fail(ran.error().text, kExitFailed);
}

int run_pair_command(const PairArguments &arguments) {
  auto config = config_of_pair(arguments.source, arguments.replica, arguments.state_directory);
  if (!config) return fail(config.error().text, kExitConfiguration);
  if (const auto checked = check_config(*config, machine_mount_table()); !checked)
    return fail(checked.error().text, kExitConfiguration);
  // Whoever types the path can make the directory; a service waits for its disk.
  if (const auto notes = config_notes(*config); !notes.empty())
    return fail(notes.front(), kExitFailed);
  umask(0);  // modes are the source's
  auto signals = ending_signals();
  if (!signals) return fail(signals.error().text, kExitFailed);
  auto service =
      Service::open(std::move(*config), find_site(), {.claim = arguments.claim, .needed = true});
  if (!service) return fail(service.error().text, kExitFailed);
  if (const auto ran = (*service)->run(**signals); !ran)
    return fail(ran.error().text, ran.error().code == -ENOTCONN ? kExitChannel : kExitFailed);
  const std::vector<std::string> incomplete = (*service)->incomplete();
  for (const std::string &line : incomplete) say(Level::kError, "", line);
  return incomplete.empty() ? kExitOk : kExitFailed;
}

}  // namespace tarn
