/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Compares two directory trees while both change, and mends the target.
 *
 * Compared are names, types, modes, owners, times of modification to the nanosecond, the texts of
 * symbolic links, device numbers, extended attributes (user, trusted where they can be read,
 * capabilities, access lists), which names are one file, and data by XXH3-128 of blocks of 1 MiB.
 * Not compared: times of access, the mode of symbolic links, the target's root's mode if it is 0700
 * (Replica::must_close_to_others), and whether zeros are stored, except that a target that stores
 * 64 KiB or more of zeros for holes of the source's file has the difference "holes".
 *
 * What differs is looked at again after settle(). It is reported if it still differs and neither
 * object has changed since the look before, by inode and change time: then all that led to the
 * source's state is applied, and the target is still different. What keeps changing is looked at
 * kLooks times and then reported as "changing". Nothing is said of a directory inside a missing or
 * extra one.
 *
 * Memory: the names of one directory of each tree and of the directories yet to be entered along
 * one path, one record for each file with several names until all of them were seen, and the
 * differences, at most a million.
 *
 * Nothing is opened outside the roots, and no symbolic link is followed; only the two roots given
 * may be links. Runs in the calling thread and one more; `options` are called by the caller's.
 */
#ifndef TARN_MIRRORD_VERIFY_VERIFY_H
#define TARN_MIRRORD_VERIFY_VERIFY_H

#include <functional>
#include <string>
#include <vector>

#include "base/result.h"
#include "mirrord/verify/difference.h"
#include "mirrord/verify/source_tree.h"

namespace tarn {

/* Each may be empty. */
struct VerifyOptions {
  /* Is the path, relative to the roots, compared? Excluded directories are not entered, and
   * excluded names in the target are left alone. */
  std::function<bool(const std::string &path)> included = {};
  /* Returns when everything that was changed in the source before the call is in the target. Its
   * error ends the verification. */
  std::function<Result<void>()> settle = {};
  /* Called often, with the estimated part that is done, from 0 to 1, and what is being done. False
   * ends it with -ECANCELED. */
  std::function<bool(double done, const std::string &what)> progress = {};
};

/* The differences in the order of their paths. Error: a root cannot be opened, settle() failed, or
 * it was ended; anything else that cannot be read is a difference. */
Result<std::vector<Difference>> verify_trees(const std::string &source, const std::string &target,
                                             const VerifyOptions &options);
/* The same for a source that may be on another host. */
Result<std::vector<Difference>> verify_trees(Tree &source, const std::string &target,
                                             const VerifyOptions &options);

/*
 * Makes the target like the source at the paths in `found`, with all below them where the target
 * lacks a directory or has one too many. Each path is looked at again first; what is mended is what
 * differs then. Of files that exist only differing ranges are written, in place. Set-user-id bits
 * and capabilities are set when the file has its bytes, and only if the source's file did not
 * change meanwhile.
 *
 * Returns what is left, with the reason where there is one: what could not be mended, and, as
 * "changing", what changed while it was mended. The rest is mended whatever fails.
 *
 * Names and files are replaced: a Replica of the target, which keeps descriptors of both, must not
 * be used during the call and must be opened anew after it, except that settle() may let it work
 * and then has to open it anew before and after.
 */
Result<std::vector<Difference>> repair_trees(const std::string &source, const std::string &target,
                                             const std::vector<Difference> &found,
                                             const VerifyOptions &options);
Result<std::vector<Difference>> repair_trees(SourceTree &source, const std::string &target,
                                             const std::vector<Difference> &found,
                                             const VerifyOptions &options);

}  // namespace tarn

#endif
