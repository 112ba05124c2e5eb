// SPDX-License-Identifier: GPL-2.0
#include "mirrord/touch.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>

#include "base/text.h"
#include "base/unique_fd.h"
#include "client/paths.h"
#include "client/rule_scope.h"
#include "client/workdir.h"

namespace tarn {
namespace {

/* The paths of the rule's directories on this mount. */
std::vector<std::string> shown(const RuleDirectories &directories, const Mount &mount) {
  std::vector<std::string> paths;
  for (const std::string &include : directories.include) {
    const auto below = path_below(mount.lower, include);
    if (below)
      paths.push_back(below->empty() ? mount.mountpoint : mount.mountpoint + "/" + *below);
    else if (path_below(include, mount.lower) && RuleScope(directories).includes(mount.lower))
      paths.push_back(mount.mountpoint);
  }
  return paths;
}

/* 0 or an error number. */
int touch_directory(const std::string &path) {
  // Only directories: on a file, chown would clear the set-user-id bit.
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd) return errno;
  constexpr auto kKeep = static_cast<uid_t>(-1);
  return fchown(fd.get(), kKeep, kKeep) == 0 ? 0 : errno;
}

}  // namespace

Result<void> touch(const Rule &rule, const std::vector<Mount> &mounts) {
  const RuleDirectories directories = read_workdir(rule.workdir).directories;
  Error error{-ENOENT, "no mount leads to its directories"};
  bool touched = false;
  for (const Mount &mount : mounts) {
    for (const std::string &path : shown(directories, mount)) {
      const int err = touch_directory(path);
      if (err != 0) error = system_error(err, printable(path));
      if (err == 0) touched = true;
      if (err == 0) break;
    }
  }
  if (touched) return {};
  return error;
}

}  // namespace tarn
