/* SPDX-License-Identifier: GPL-2.0 */
/* The running kernel's mount table, as the mount name space of this process has it. */
#ifndef TARN_BASE_MOUNT_TABLE_H
#define TARN_BASE_MOUNT_TABLE_H

#include <string>
#include <string_view>
#include <vector>

namespace tarn {

struct MountEntry {
  std::string device;     /* of the file system, "8:1" */
  std::string root;       /* the path in it that is mounted */
  std::string mountpoint; /* where */
  std::string lower;      /* of a mount of tarn: what it shows, without `root`; else empty */
  std::string options{};  /* of the mount, not of its file system: "rw,nosuid,nodev" */
  std::string type{};

  bool has_option(std::string_view option) const;
};

/* In the order of mounting; of those on one place the last is the one that is seen. Empty when the
 * table cannot be read. */
std::vector<MountEntry> mount_table();
/* From a text like /proc/self/mountinfo. */
std::vector<MountEntry> read_mount_table(std::string_view text);

}  // namespace tarn

#endif
