/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The source directory, read only. mirrord runs on the same machine and reads it before it removes
 * anything in the replica, and for what records do not carry. Paths are relative to it, as in the
 * replica; no look-up follows a symbolic link or leaves it.
 *
 * Results show the source at the moment of the call, perhaps ahead of the current record;
 * pending_paths.h says how that is handled. One thread.
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
#include "mirrord/xattrs.h"

namespace tarn {

class Source {
 public:
  /* The directory is opened at the first use and need not exist before. Without path descriptors
   * (O_PATH) only regular files and directories are ever opened. */
  explicit Source(std::string directory, bool path_descriptors = has_path_descriptors())
      : directory_(std::move(directory)), path_descriptors_(path_descriptors) {}

  const std::string &directory() const { return directory_; }

  struct Object {
    UniqueFd fd; /* refers to this object even if the name changes; without O_PATH only regular
                    files and directories have one */
    struct stat status;
    std::string target;    /* of a symbolic link */
    bool readable = false; /* `fd` is open for reading */
  };

  /* Can the source be read? False if the directory does not exist or may not be searched. */
  bool available();

  /* Nothing if the name does not exist. "" is the directory itself. */
  Result<std::optional<Object>> find(const std::string &path);

  /* The same for an entry of this directory, which may have left its path meanwhile. A regular file
   * is opened for reading, with O_NOATIME, where we may. */
  Result<std::optional<Object>> child(const Object &directory, const DirectoryEntry &entry) const;

  /* The place of the object's extended attributes. Nothing if it has no descriptor. */
  static std::optional<XattrPlace> xattr_place(const Object &object);

  /* Opens a regular file for reading, with O_NOATIME where we may. */
  static Result<UniqueFd> open_file(const Object &file);
  /* The entries of a directory, without "." and "..". */
  static Result<std::vector<DirectoryEntry>> entries(const Object &directory);

 private:
  std::string directory_;
  bool path_descriptors_;
  UniqueFd root_;
};

}  // namespace tarn

#endif
