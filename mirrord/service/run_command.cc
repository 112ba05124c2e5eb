// SPDX-License-Identifier: GPL-2.0
#include "mirrord/service/run_command.h"

#include <sys/stat.h>

#include <csignal>

#include "base/mount_table.h"
#include "mirrord/config/config.h"
#include "mirrord/service/journal.h"
#include "mirrord/service/manager.h"
#include "mirrord/service/service.h"

namespace tarn {
namespace {

enum Exit { kExitOk = 0, kExitFailed = 1, kExitConfiguration = 2 };

int fail(const Error &error, Exit code) {
  say(Level::kError, "", error.text);
  return code;
}

}  // namespace

int run_command(const std::string &config_file) {
  auto config = read_config(config_file);
  if (!config) return fail(config.error(), kExitConfiguration);
  if (const auto checked = check_config(*config, mount_table()); !checked)
    return fail(checked.error(), kExitConfiguration);
  for (const std::string &note : config_notes(*config)) say(Level::kWarning, "", note);
  umask(0);  // modes are the source's
  std::signal(SIGPIPE, SIG_IGN);
  auto store = ManagerStore::open();
  auto signals = SignalPipe::open({SIGTERM, SIGINT, SIGHUP});
  if (!signals) return fail(signals.error(), kExitFailed);
  auto service = Service::open(std::move(*config), find_site(), std::move(store));
  if (!service) return fail(service.error(), kExitFailed);
  const auto ran = (*service)->run(**signals);
  return ran ? kExitOk : fail(ran.error(), kExitFailed);
}

}  // namespace tarn
