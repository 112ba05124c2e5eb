/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Refuses a replica that is the source, contains it or lies within it: it would be replicated into
 * itself and destroyed. Compares what the two paths lead to: through bind mounts, mounts of tarn,
 * and mounts below them.
 */
#ifndef TARN_MIRRORD_OVERLAP_H
#define TARN_MIRRORD_OVERLAP_H

#include <optional>
#include <string>
#include <vector>

#include "base/mount_table.h"
#include "base/result.h"
#include "client/control_link.h"

namespace tarn {

/* The mount table of this process; on a kernel without one, `mounts`. */
std::vector<MountEntry> mount_table_or(const std::vector<Mount> &mounts);

/* Both paths are canonical. The error says how they overlap and what to do; it calls the second
 * one `noun`. */
Result<void> check_overlap(const std::string &source, const std::string &replica,
                           const std::vector<MountEntry> &table,
                           const std::string &noun = "replica");

/* A directory and what a message calls it: "the target". The path is canonical. */
struct NamedDirectory {
  std::string name;
  std::string path;
};

/* How the second directory overlaps with the first: "NAME PATH lies inside NAME PATH". Nothing if
 * they are apart. */
std::optional<std::string> overlap_text(const NamedDirectory &first, const NamedDirectory &second,
                                        const std::vector<MountEntry> &table);

/* The same for a mount below `outer` that shows `inner`: "NAME PATH contains MOUNT, a mount that
 * shows NAME PATH". */
std::optional<std::string> shown_text(const NamedDirectory &outer, const NamedDirectory &inner,
                                      const std::vector<MountEntry> &table);

}  // namespace tarn

#endif
