/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The verbs of the command line that ask a running service: status, targets, wait, pause, resume,
 * resync, skip, verify, repair, retire, metrics. Each takes --config FILE, --state-directory DIR or
 * --socket PATH.
 *
 * Exit statuses: 0 good; 1 there are differences or problems; 2 the command line is wrong, or names
 * what there is not; 3 the service cannot be reached, or a verification cannot be done.
 */
#ifndef TARN_MIRRORD_CONTROL_COMMANDS_H
#define TARN_MIRRORD_CONTROL_COMMANDS_H

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/result.h"

namespace CLI {
class App;
}

namespace tarn {

class ControlCommands {
 public:
  /* What was given of --config and --state-directory, one of them at most; "": not given. */
  struct Place {
    std::string config, state_directory;
  };
  /* The path of the socket by that. Called if --socket was not given. */
  using FindSocket = std::function<Result<std::string>(const Place &place)>;

  /* Adds the verbs as subcommands of `app`, which is not to be parsed after the object has gone. */
  ControlCommands(CLI::App &app, FindSocket find_socket);
  ~ControlCommands();

  /* Runs the verb that was parsed and returns the exit status; nothing if there was none. */
  std::optional<int> run();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tarn

#endif
