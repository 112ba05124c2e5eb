/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Mounting through the module of this machine, for `tarn mount` and for the helper of mount(8).
 * Calls block until the mount is there or has failed.
 */
#ifndef TARN_TARN_MOUNTING_H
#define TARN_TARN_MOUNTING_H

#include <optional>
#include <string>

#include "base/result.h"
#include "client/site.h"

namespace tarn {

/* The canonical path of an existing directory that is to be mounted or mounted on. `role` names it
 * in errors. */
Result<std::string> mount_directory(const std::string &path, const std::string &role);

/*
 * Mounts LOWER at the directory MOUNTPOINT; starts a tarnd if the site needs one and none runs, and
 * ends it again if the mount fails. `cache`: seconds, if given. An error with code kNotStarted says
 * that tarnd did not start.
 */
Result<void> mount_at(const Site &site, const std::string &lower, const std::string &mountpoint,
                      std::optional<double> cache);

}  // namespace tarn

#endif
