/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The supplementary groups and effective capabilities of a process of the host, from /proc.
 *
 * Capabilities in another user name space do not apply to our files. A process has none here unless
 * its name space maps all users and groups as this program's does.
 */
#ifndef TARND_FUSE_PROCESS_RIGHTS_H
#define TARND_FUSE_PROCESS_RIGHTS_H

#include <string>
#include <vector>

namespace tarnd {

struct ProcessRights {
  std::vector<unsigned> groups;
  unsigned capabilities = 0; /* those below 32, a bit each */

  bool operator==(const ProcessRights &) const = default;
};

/* From the text of a "status" file in /proc. A missing field means none. */
ProcessRights parse_status(const std::string &status);

/* Of a thread; none when it has ended. Throws std::bad_alloc, also when out of descriptors. */
ProcessRights process_rights(int tid);

}  // namespace tarnd

#endif
