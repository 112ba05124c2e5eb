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
 * The canonical path: symbolic links resolved as far as the path exists, no "." or "..", no
 * trailing slash (except "/"). Errors: -EINVAL for an empty path, and those of the look-up.
 */
Result<std::string> whole_path(const std::string &path);

/* The same for a mount point, which is not looked up itself as its mount may not answer. Never
 * fails. */
std::string whole_mountpoint(const std::string &path);

/* The part of `path` below `directory`: "" for the directory itself, nothing for a path outside it.
 * Both are canonical. */
std::optional<std::string> path_below(std::string_view directory, std::string_view path);

/*
 * Rules and records name lower paths. If the canonical `path` lies on a mount and in no lower
 * directory, returns the lower path behind it, which the user may have meant; otherwise nothing.
 */
std::optional<std::string> meant_lower_path(const std::vector<Mount> &mounts,
                                            const std::string &path);

}  // namespace tarn

#endif
