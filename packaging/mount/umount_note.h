/* SPDX-License-Identifier: GPL-2.0 */
/*
 * umount(8) looks for a helper by the type that statfs() tells, and for every FUSE mount that is
 * "fuse". It reads the mount table, where the type is fuse.tarn, only if libmount has notes of its
 * own about the mount, in /run/mount/utab.
 */
#ifndef TARN_PACKAGING_MOUNT_UMOUNT_NOTE_H
#define TARN_PACKAGING_MOUNT_UMOUNT_NOTE_H

#include <string>

#include "base/result.h"

namespace tarn {

/*
 * Notes that /sbin/umount.fuse.tarn unmounts MOUNTPOINT, in the place of an older note. Does
 * nothing for users other than root, whose umount(8) reads the mount table anyway.
 */
Result<void> note_umount_helper(const std::string &lower, const std::string &mountpoint);

/* Removes the note, if there is one. MOUNTPOINT is canonical. */
Result<void> remove_umount_note(const std::string &mountpoint);

}  // namespace tarn

#endif
