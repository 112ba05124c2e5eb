/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A replica that is the source, contains it or lies within it would be replicated into itself, and
 * destroy it. Two paths are compared by what they lead to: through bind mounts, through mounts of
 * tarn, and through what is mounted below them.
 */
#ifndef TARN_MIRRORD_OVERLAP_H
#define TARN_MIRRORD_OVERLAP_H

#include <string>
#include <vector>

#include "base/mount_table.h"
#include "base/result.h"
#include "client/control_link.h"

namespace tarn {

/* The mount table of this process. A kernel that has none: what `mounts` tells. */
std::vector<MountEntry> mount_table_or(const std::vector<Mount> &mounts);

/* Both whole. Error: how the replica and the source meet, and what to do. */
Result<void> check_overlap(const std::string &source, const std::string &replica,
                           const std::vector<MountEntry> &table);

}  // namespace tarn

#endif
