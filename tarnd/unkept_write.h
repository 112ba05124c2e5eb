/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Writes of which the host keeps no page.
 *
 * Who has a file open for writing only can neither read nor map it through that: the host hands
 * such writes on as they are (direct I/O, in FUSE's words) instead of copying them into pages of
 * its own first. That is done as long as the host has no page of the file; a file that somebody has
 * open otherwise is written through its pages.
 *
 * Somebody may come to read or map the file while it is so written. Then the pages that a write
 * covers have to go, and what others have stored in them through a mapping must not be lost, nor
 * bring back what the write has replaced.
 */
#ifndef TARND_UNKEPT_WRITE_H
#define TARND_UNKEPT_WRITE_H

#include "tarnd/fuse_ops.h"

namespace tarnd {

/* Enters a file that was just opened with fi->flags among what the host holds, and says in `fi` how
 * the host is to treat it. */
void hold_opened(Mount *mount, uk_file *file, uk_node *node, fuse_file_info *fi);

/* The bytes written, or -errno: uk_write_with for whatever the host asks to be written. */
long write_opened(Mount *mount, fuse_ino_t ino, const char *data, size_t size, off_t off,
                  const fuse_file_info *fi);

}  // namespace tarnd

#endif
