/* SPDX-License-Identifier: GPL-2.0 */
/* The running kernel's mount table, in this process's mount namespace. */
#ifndef TARN_BASE_MOUNT_TABLE_H
#define TARN_BASE_MOUNT_TABLE_H

#include <string>
#include <string_view>
#include <vector>

namespace tarn {

struct MountEntry {
  std::string device; /* of the file system, for example "8:1" */
  std::string root;   /* the path in the file system that is mounted */
  std::string mountpoint;
  std::string lower;     /* the lower directory of a mount of tarn, without `root`; else empty */
  std::string options{}; /* of the mount, not of the file system: "rw,nosuid,nodev" */
  std::string type{};

  bool has_option(std::string_view option) const;
};

/* In mounting order: of several on one mount point the last is visible. Empty if the table cannot
 * be read. */
std::vector<MountEntry> mount_table();
/* Parses a text like /proc/self/mountinfo. */
std::vector<MountEntry> read_mount_table(std::string_view text);

}  // namespace tarn

#endif
