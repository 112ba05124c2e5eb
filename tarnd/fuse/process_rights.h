/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The supplementary groups and effective capabilities of a host process, from /proc.
 *
 * Capabilities in another user namespace do not apply to our files: they count only if the
 * namespace maps users and groups as this program's does.
 */
#ifndef TARND_FUSE_PROCESS_RIGHTS_H
#define TARND_FUSE_PROCESS_RIGHTS_H

#include <string>
#include <vector>

namespace tarnd {

struct ProcessRights {
  std::vector<unsigned> groups;
  unsigned capabilities = 0; /* bits of the capabilities below 32 */

  bool operator==(const ProcessRights &) const = default;
};

/* Parses a "status" file of /proc. A missing field means none. */
ProcessRights parse_status(const std::string &status);

/* A thread's rights; none if it has ended. Throws std::bad_alloc, also when out of descriptors. */
ProcessRights process_rights(int tid);

}  // namespace tarnd

#endif
