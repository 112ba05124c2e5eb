/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The source directory, read only: mirrord runs on its machine and looks there before it destroys
 * anything in the replica, and for what no record carries. Paths are relative to it, as in the
 * replica; no look-up follows a symbolic link or leaves it.
 *
 * What is found is how the source is at the moment of the call. It may be further than the record
 * that is being applied; pending_paths.h says what follows from that. One thread.
 */
#ifndef TARN_MIRRORD_SOURCE_H
#define TARN_MIRRORD_SOURCE_H

#include <sys/stat.h>

#include <optional>
#include <string>
#include <vector>

#include "base/result.h"
#include "base/unique_fd.h"
#include "mirrord/directory_walk.h"

namespace tarn {

class Source {
 public:
  /* The directory is opened when it is first needed: it need not be there before. Without path
   * descriptors (O_PATH) only regular files and directories are ever opened. */
  explicit Source(std::string directory, bool path_descriptors = has_path_descriptors())
      : directory_(std::move(directory)), path_descriptors_(path_descriptors) {}

  const std::string &directory() const { return directory_; }

  struct Object {
    UniqueFd fd; /* it stays this object, whatever happens to the name; on a kernel that does not
                    know O_PATH only a regular file and a directory have one */
    struct stat status;
    std::string target; /* of a symbolic link */
  };

  /* Can anything be looked up? Not if the directory does not exist or may not be entered. */
  bool available();

  /* Nothing: no object goes by that name. "" is the directory itself. */
  Result<std::optional<Object>> find(const std::string &path);

  /* A regular file for reading. Its access time stays where the system lets us ask for that. */
  static Result<UniqueFd> open_file(const Object &file);
  /* Of a directory, without "." and "..". */
  static Result<std::vector<DirectoryEntry>> entries(const Object &directory);

 private:
  std::string directory_;
  bool path_descriptors_;
  UniqueFd root_;
};

}  // namespace tarn

#endif
