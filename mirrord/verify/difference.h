/* SPDX-License-Identifier: GPL-2.0 */
/* How a target differs from its source at one path: what a verification reports and a repair takes.
 */
#ifndef TARN_MIRRORD_VERIFY_DIFFERENCE_H
#define TARN_MIRRORD_VERIFY_DIFFERENCE_H

#include <string>

namespace tarn {

/*
 * `kind` is one of
 *   missing     the target lacks the name; for a directory, all below it too
 *   extra       the source lacks the name; for a directory, all below it too
 *   type        the types differ
 *   size, data  the lengths of two files differ; or only their bytes
 *   holes       the target stores at least 64 KiB of zeros that are a hole at the source
 *   mode, owner, mtime, xattr
 *   symlink     the texts of two symbolic links differ
 *   device      the numbers of two device nodes differ
 *   link        the name is one file with `other` in one tree and not in the other
 *   unreadable  one of the two cannot be read, or lies too deep
 *   changing    it changed each time it was looked at: not compared, no difference
 *   more        there were too many differences: what follows was not compared
 */
struct Difference {
  std::string path; /* relative to the roots; "" is the root. Any bytes but NUL. */
  std::string kind;
  std::string detail;     /* one line for people */
  std::string other = {}; /* of "link": another name, a path like `path` */

  /* False if it says only that the path did not come to rest. */
  bool persists() const { return kind != "changing"; }
};

}  // namespace tarn

#endif
