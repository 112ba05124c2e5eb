/* SPDX-License-Identifier: GPL-2.0 */
/* Paths as records carry them: absolute and without symbolic links. */
#ifndef TARN_CLIENT_PATHS_H
#define TARN_CLIENT_PATHS_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "client/control_link.h"

namespace tarn {

/*
 * The whole path: symbolic links resolved as far as the path exists, no "." or "..", no slash at
 * the end (but for "/"). Errors: -EINVAL for an empty path, and those of looking it up.
 */
Result<std::string> whole_path(const std::string &path);

/* The same for a mount point, whose own directory may be a mount that no longer answers. Never
 * fails. */
std::string whole_mountpoint(const std::string &path);

/* The path below `directory` that `path` names: "" for the directory itself; nothing for a path
 * that is not below it. Both whole. */
std::optional<std::string> path_below(std::string_view directory, std::string_view path);

/*
 * Rules and records are about lower directories. If `path`, a whole one, is a path of a mount and
 * of no lower directory, the lower path that it stands for, which the user may have
 * meant; otherwise nothing.
 */
std::optional<std::string> meant_lower_path(const std::vector<Mount> &mounts,
                                            const std::string &path);

}  // namespace tarn

#endif
