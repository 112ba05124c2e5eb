/* SPDX-License-Identifier: GPL-2.0 */
/* The service in the foreground, until it is told to end. */
#ifndef TARN_MIRRORD_SERVICE_RUN_COMMAND_H
#define TARN_MIRRORD_SERVICE_RUN_COMMAND_H

#include <string>

#include "client/daemon_lock.h"

namespace tarn {

/* `mirrord run`. Returns the exit status: 0 ended as told, 1 it cannot run, with one line on
 * stderr, 2 the configuration is wrong. */
int run_command(const std::string &config_file);

/* `mirrord replica`. As run_command(). */
int replica_command(const std::string &config_file);

/* `mirrord --source A --replica B`. */
struct PairArguments {
  std::string source, replica;
  std::string state_directory; /* "": the default one */
  Claim claim = Claim::kRefuseIfTaken;
};
/* Returns the exit status: 0 ended as told, with the replica complete; 1 it cannot run, or the
 * replica may differ; 2 the arguments are wrong; 3 it cannot register with the module. */
int run_pair_command(const PairArguments &arguments);

}  // namespace tarn

#endif
