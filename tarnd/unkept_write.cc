// SPDX-License-Identifier: GPL-2.0
#include "tarnd/unkept_write.h"

#include <fcntl.h>

#include <limits>

namespace tarnd {

// The host does not sync after such a write, and lets nobody else write the file meanwhile.
static Pages wanted_for(int flags) {
  const bool writes_only = (flags & O_ACCMODE) == O_WRONLY && !(flags & (O_SYNC | O_DSYNC));
  return writes_only ? Pages::kNotKept : Pages::kKept;
}

void hold_opened(Mount *mount, uk_file *file, uk_node *node, fuse_file_info *fi) {
  const bool kept = mount->holdings().add_file(file, node, wanted_for(fi->flags)) == Pages::kKept;
  fi->fh = reinterpret_cast<uint64_t>(file) | (kept ? 0 : kNotKeptBit);
  fi->keep_cache = kept;  // what was read stays good
  fi->direct_io = !kept;
  fi->noflush = 1;  // nothing is held back here for a descriptor that is closed
}

// Where the bytes may land: at the end of the file, if that is what the writer wants.
static Range range_of(size_t size, off_t off, int flags) {
  if (flags & O_APPEND) return {0, std::numeric_limits<long long>::max()};
  const auto from = static_cast<unsigned long long>(off);
  return {from, from + size};
}

// The host writes dirty pages of the range back first, and others are served meanwhile.
static void drop_pages(Mount *mount, fuse_ino_t ino, Range range) {
  fuse_lowlevel_notify_inval_inode(mount->session(), ino, static_cast<off_t>(range.from),
                                   static_cast<off_t>(range.to - range.from));
}

static long write_unkept(Mount *mount, fuse_ino_t ino, const char *data, size_t size, off_t off,
                         const fuse_file_info *fi) {
  Holdings &holdings = mount->holdings();
  uk_node *node = node_of(mount, ino);
  const Range range = range_of(size, off, fi->flags);
  // Behind the end is nothing that an old page could bring back, and a second write would land
  // behind the first.
  const bool once = fi->flags & O_APPEND;
  // What was stored in a mapping before the write is older than it.
  if (holdings.pages(node) == Pages::kKept) drop_pages(mount, ino, range);
  long done;
  do {
    holdings.begin_write(node, range);
    done = uk_write_with(file_of(fi), data, size, static_cast<unsigned long long>(off), fi->flags);
    if (holdings.pages(node) == Pages::kNotKept) break;
    // A page that was read before the write shows what it has replaced. If something was stored in
    // it as well, it is written back now, old bytes and new: then the write comes once more.
    drop_pages(mount, ino, range);
  } while (!once && done > 0 && holdings.overlapped(node));
  holdings.end_write(node);
  return done;
}

long write_opened(Mount *mount, fuse_ino_t ino, const char *data, size_t size, off_t off,
                  const fuse_file_info *fi) {
  if (fi->fh & kNotKeptBit) return write_unkept(mount, ino, data, size, off, fi);
  const long done =
      uk_write_with(file_of(fi), data, size, static_cast<unsigned long long>(off), fi->flags);
  if (fi->writepage) mount->holdings().write_back(node_of(mount, ino), range_of(size, off, 0));
  return done;
}

}  // namespace tarnd
