/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Translates between the structures of the host's file-system calls and those of the kernel in the
 * process. Pure functions that cannot fail.
 */
#ifndef TARND_FUSE_TRANSLATE_H
#define TARND_FUSE_TRANSLATE_H

#include <sys/stat.h>
#include <sys/statvfs.h>

#include "ukern/door/uk_fs.h"

namespace tarnd {

struct stat to_stat(const uk_stat &from);

/* Translates the fields that setattr can set; the others are 0. */
uk_stat to_uk_stat(const struct stat &from);

struct statvfs to_statvfs(const struct uk_statfs &from);

/* FUSE_SET_ATTR_* bits to UK_SET_*. A "now" bit overrides the time of its field; bits without a
 * counterpart are dropped. */
unsigned to_uk_set(int to_set);

/* Open flags as the kernel has them, without those that mean nothing to it. */
int to_create_flags(int flags);
/* The same for an existing object: without those for creation. */
int to_open_flags(int flags);

/* The file type bits of st_mode from a DT_* type. */
mode_t to_entry_mode(unsigned type);

}  // namespace tarnd

#endif
