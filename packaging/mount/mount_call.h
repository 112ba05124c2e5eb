/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The command lines by which mount(8) and umount(8) call their helpers:
 *
 *   mount.tarn LOWER MOUNTPOINT [-sfnv] [-N NAMESPACE] [-o OPTIONS] [-t TYPE]
 *   umount.fuse.tarn MOUNTPOINT [-fnlrv] [-N NAMESPACE] [-t TYPE]
 *
 * Errors have the code -EINVAL and name the option.
 */
#ifndef TARN_PACKAGING_MOUNT_MOUNT_CALL_H
#define TARN_PACKAGING_MOUNT_MOUNT_CALL_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"

namespace tarn {

/* The exit statuses of mount(8) and umount(8), which pass on those of a helper. */
enum MountExit { kMountOk = 0, kMountUsage = 1, kMountSystem = 2, kMountFailed = 32 };

struct MountCall {
  std::string lower, mountpoint;
  std::vector<std::string> options;
  bool fake = false;    /* do everything but mount */
  bool sloppy = false;  /* ignore unknown options */
  bool no_mtab = false; /* for mounts of the kernel: do not write /etc/mtab */
  bool verbose = false;
};

struct UmountCall {
  std::string mountpoint;
  bool lazy = false;
  bool force = false;
};

/* Nothing if the call was --help or --version, which is answered on stdout. */
Result<std::optional<MountCall>> read_mount_call(int argc, char **argv);
Result<std::optional<UmountCall>> read_umount_call(int argc, char **argv);

/* Splits "a,b=c" at its commas, but not inside double quotes. */
std::vector<std::string> split_options(std::string_view text);

/*
 * Checks the options of a mount that tarnd is to make, and returns the value of `cache`: seconds,
 * if given. `as_root`: for others, whose mounts never have devices and set-user-ID programs, nodev
 * and nosuid are possible.
 */
Result<std::optional<double>> check_options(const MountCall &call, bool as_root);

}  // namespace tarn

#endif
