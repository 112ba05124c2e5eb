/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A replica that is the source, contains it or lies within it would be replicated into itself, and
 * destroy it. Two paths are compared by what they lead to: through bind mounts, through mounts of
 * tarn, and through what is mounted below them.
 */
#ifndef TARN_MIRRORD_APART_H
#define TARN_MIRRORD_APART_H

#include <string>
#include <string_view>
#include <vector>

#include "client/control_link.h"
#include "client/result.h"

namespace tarn {

/* What the kernel knows of a mount; of a text like /proc/self/mountinfo, in its order. */
struct MountEntry {
  std::string device;     /* of the file system, "8:1" */
  std::string root;       /* the path in it that is mounted */
  std::string mountpoint; /* where */
  std::string lower;      /* of a mount of tarn: what it shows, without `root`; else empty */
};
std::vector<MountEntry> read_mount_table(std::string_view text);

/* Of this process. A kernel that has no such table: what `mounts` tells. */
std::vector<MountEntry> mount_table(const std::vector<Mount> &mounts);

/* Both whole. Error: how the replica and the source meet, and what to do. */
Result<void> check_apart(const std::string &source, const std::string &replica,
                         const std::vector<MountEntry> &table);

}  // namespace tarn

#endif
