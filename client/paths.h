/* SPDX-License-Identifier: GPL-2.0 */
/* Paths as records carry them: absolute and without symbolic links. */
#ifndef TARN_CLIENT_PATHS_H
#define TARN_CLIENT_PATHS_H

#include <string>

#include "client/result.h"

namespace tarn {

/*
 * The whole path: symbolic links resolved as far as the path exists, no "." or "..", no slash at
 * the end (but for "/"). Errors: -EINVAL for an empty path, and those of looking it up.
 */
Result<std::string> whole_path(const std::string &path);

/* The same for a mount point, whose own directory may be a mount that no longer answers. Never
 * fails. */
std::string whole_mountpoint(const std::string &path);

}  // namespace tarn

#endif
