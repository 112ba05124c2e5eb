/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Between the structures of the host's file-system calls and those of the kernel in the process.
 * Each struct translation is one pure function; none fails.
 */
#ifndef TARND_FUSE_TRANSLATE_H
#define TARND_FUSE_TRANSLATE_H

#include <sys/stat.h>
#include <sys/statvfs.h>

#include "ukern/door/uk_fs.h"

namespace tarnd {

struct stat to_stat(const uk_stat &from);

/* What setattr wants, of all fields that it can name; the others are 0. */
uk_stat to_uk_stat(const struct stat &from);

struct statvfs to_statvfs(const struct uk_statfs &from);

/* FUSE_SET_ATTR_* bits to UK_SET_*. "Now" replaces the time given beside it; bits without a
 * counterpart go. */
unsigned to_uk_set(int to_set);

/* Open flags for an object that exists: what only concerns creation and terminals is taken off. */
int to_open_flags(int flags);

/* The st_mode of a directory entry, from its DT_* type: the file type alone. */
mode_t to_entry_mode(unsigned type);

}  // namespace tarnd

#endif
