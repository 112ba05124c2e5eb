/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What a process of the host may do beyond what its user and group may: its supplementary groups
 * and effective capabilities, as /proc tells them.
 *
 * Capabilities count only if they are about the files of this program: a process of a user name
 * space has those that it has there over what belongs to users of that name space, and here it is
 * taken to have none unless its name space maps all users as this program's does.
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

/* From the text of a "status" file in /proc. What is missing there is none. */
ProcessRights parse_status(const std::string &status);

/* Of a thread, by its number. None when it has ended. Throws std::bad_alloc, also for want of a
 * descriptor. */
ProcessRights process_rights(int tid);

}  // namespace tarnd

#endif
