/* SPDX-License-Identifier: GPL-2.0 */
/* `mirrord run`: the service in the foreground, until it is told to end. */
#ifndef TARN_MIRRORD_SERVICE_RUN_COMMAND_H
#define TARN_MIRRORD_SERVICE_RUN_COMMAND_H

#include <string>

namespace tarn {

/* Returns the exit status: 0 ended as told, 1 it cannot run, with one line on stderr, 2 the
 * configuration is wrong. */
int run_command(const std::string &config_file);

}  // namespace tarn

#endif
