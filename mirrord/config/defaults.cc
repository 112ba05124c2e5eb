// SPDX-License-Identifier: GPL-2.0
// What holds where no file says otherwise, and the configuration of one pair of directories.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include <fmt/format.h>
#include <xxhash.h>

#include "client/paths.h"
#include "client/site.h"
#include "mirrord/config/config.h"
#include "mirrord/config/names.h"

namespace tarn {
namespace {

/* Nothing for an empty one. */
const char *variable(const char *name) {
  const char *value = std::getenv(name);
  return value && *value ? value : nullptr;
}

Result<std::string> state_home() {
  if (const char *given = variable("TARN_STATE_DIR")) return std::string(given);
  if (geteuid() == 0) return std::string("/var/lib/tarn");
  if (const char *state = variable("XDG_STATE_HOME")) return std::string(state) + "/tarn";
  if (const char *home = variable("HOME")) return std::string(home) + "/.local/state/tarn";
  return Error{-ENOENT, "no directory is known for the state: set HOME or TARN_STATE_DIR"};
}

/* As much of the path's last name as a name may have, and a hash of the path. */
std::string name_of(const std::string &path) {
  constexpr std::size_t kReadable = 40;
  std::string name;
  for (const char c : path.substr(path.rfind('/') + 1)) {
    const bool upper = c >= 'A' && c <= 'Z';
    const char lower = upper ? static_cast<char>(c - 'A' + 'a') : c;
    if (name.size() < kReadable && good_config_name(name + lower)) name += lower;
  }
  if (!name.empty()) name += '-';
  return name + fmt::format("{:016x}", XXH3_64bits(path.data(), path.size())).substr(0, 8);
}

}  // namespace

Result<std::string> default_state_directory() {
  const auto home = state_home();
  if (!home) return home.error();
  return whole_path(*home + "/mirrord");
}

std::string default_control_socket() {
  return find_site().run_dir + "/mirrord.sock";
}

std::string control_socket_in(const std::string &state_directory) {
  return state_directory + "/control.sock";
}

Result<Config> config_of_pair(const std::string &source, const std::string &target,
                              const std::string &state_directory) {
  auto from = whole_path(source);
  if (!from) return from.error();
  auto to = whole_path(target);
  if (!to) return to.error();
  auto state = state_directory.empty() ? default_state_directory() : whole_path(state_directory);
  if (!state) return state.error();
  Config config;
  config.control_socket =
      state_directory.empty() ? default_control_socket() : control_socket_in(*state);
  config.state_directory = std::move(*state);
  SourceConfig pair;
  pair.name = name_of(*from);
  pair.directory = std::move(*from);
  pair.targets = {{.name = name_of(*to), .directory = std::move(*to)}};
  config.sources = {std::move(pair)};
  return config;
}

}  // namespace tarn
