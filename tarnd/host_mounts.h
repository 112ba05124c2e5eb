/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The host's mount table, as this program's mount name space has it.
 */
#ifndef TARND_HOST_MOUNTS_H
#define TARND_HOST_MOUNTS_H

#include <istream>
#include <string>
#include <vector>

namespace tarnd {

struct HostMount {
  std::string place;
  std::string options; /* of the mount, not of its file system: "rw,nosuid,nodev" */
  std::string type;

  bool has(const std::string &option) const;
};

/* In the order of mounting; of those on one place the last is the one that is seen. Empty when the
 * table cannot be read. */
std::vector<HostMount> host_mounts();
/* From the text of a "mountinfo" file. Lines that are none are left out. */
std::vector<HostMount> parse_mountinfo(std::istream &table);

}  // namespace tarnd

#endif
