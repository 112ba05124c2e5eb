/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Opens directories below a root without leaving it: symbolic links and ".." are refused. Another
 * machine or user controls the replica's contents; a link there must not lead a write elsewhere.
 */
#ifndef TARN_MIRRORD_DIRECTORY_WALK_H
#define TARN_MIRRORD_DIRECTORY_WALK_H

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "base/unique_fd.h"

namespace tarn {

enum class WalkMethod {
  kBest,       /* one openat2 call where the kernel has it, else step by step */
  kStepByStep, /* one openat per component */
};

/*
 * Returns an O_PATH descriptor of the directory `path` below `root`; "" is the root itself. `path`
 * has no leading slash. Errors: those of openat; -ELOOP or -ENOTDIR for a symbolic link, -EXDEV for
 * "..".
 */
Result<UniqueFd> open_directory_below(int root, const std::string &path,
                                      WalkMethod method = WalkMethod::kBest);

/* Does this kernel know O_PATH? Before Linux 2.6.39 the flag is ignored and the open is one for
 * reading, with its side effects on a FIFO or a device. */
bool has_path_descriptors();

struct DirectoryEntry {
  std::string name;
  ino_t inode;
  bool may_be_directory; /* true if the file system does not tell */
  bool regular_file;     /* false if the file system does not tell */
};

/* The entries of a directory that is open for reading, without "." and "..". */
Result<std::vector<DirectoryEntry>> directory_entries(UniqueFd directory);

/* Is every component a plain name: not empty, not "." and not ".."? "" is plain too. */
bool plain_relative(std::string_view path);

}  // namespace tarn

#endif
