/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The source directory, read only, as the engine looks at it: before it removes anything in the
 * replica, and for what records do not carry. Paths are relative to it, as in the replica; no
 * look-up follows a symbolic link or leaves it. It lies on this host (local_source.h) or on another
 * one (remote/remote_source.h).
 *
 * Results show the source at the moment of the call, perhaps ahead of the current record;
 * pending_paths.h says how that is handled. Times are the source's: its clock may differ from this
 * host's. The error -EHOSTDOWN means that nothing is known because its host does not answer.
 *
 * One thread. Files and objects may not outlive the source.
 */
#ifndef TARN_MIRRORD_SOURCE_H
#define TARN_MIRRORD_SOURCE_H

#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/result.h"
#include "base/unique_fd.h"
#include "mirrord/directory_walk.h"
#include "mirrord/xattrs.h"

namespace tarn {

/* A regular file that is being read. It is the same one even if its name goes; the error -ENOENT
 * means that it can no longer be read. */
class SourceFile {
 public:
  virtual ~SourceFile() = default;

  /* Its status before what is read from now on, from `from` to `to`. */
  virtual Result<struct stat> begin(std::uint64_t from, std::uint64_t to) = 0;
  /* Its status after what was read since then. */
  virtual Result<struct stat> end() = 0;

  /* The first data at or behind `at`: what lies before it is a hole. Both are `to` if there is none
   * before `to`. An empty one elsewhere: the file is changing, ask again. */
  struct Extent {
    std::uint64_t begin, end;
  };
  virtual Result<Extent> data_from(std::uint64_t at, std::uint64_t to) = 0;

  /* How many bytes were read: as many as asked for, or up to the end of the file. */
  virtual Result<std::size_t> read(std::uint64_t at, std::span<std::byte> to) = 0;

  virtual Result<Xattrs> xattrs() = 0;
};

/* Is nothing known because the source's host does not answer? */
inline bool is_away(const Error &error) {
  return error.code == -EHOSTDOWN;
}

class RemoteObject;

class Source {
 public:
  virtual ~Source() = default;

  struct Object {
    struct stat status;
    std::string target; /* of a symbolic link */
    /* How a local source reaches it. */
    UniqueFd fd; /* refers to this object even if the name changes; without O_PATH only regular
                    files and directories have one */
    bool readable = false; /* `fd` is open for reading */
    /* How a remote one does. */
    std::shared_ptr<RemoteObject> remote = {};
  };

  /* Can the source be read? False if the directory does not exist or may not be searched. */
  virtual bool available() = 0;

  /* Nothing if the name does not exist. "" is the directory itself. */
  virtual Result<std::optional<Object>> find(const std::string &path) = 0;

  /* The same for an entry of this directory, which may have left its path meanwhile. A regular file
   * is opened for reading, with O_NOATIME, where we may. */
  virtual Result<std::optional<Object>> child(const Object &directory,
                                              const DirectoryEntry &entry) = 0;
  /* The entries of a directory, without "." and "..". */
  virtual Result<std::vector<DirectoryEntry>> entries(const Object &directory) = 0;

  /* These paths are about to be looked for, in this order, each once. Only a call for no paths ends
   * that; until then, results may show the source at the moment of the first call. */
  virtual void expect(const std::vector<std::string> &paths) = 0;

  /* Opens a regular file for reading, with O_NOATIME where we may. It may use the object. */
  virtual Result<std::unique_ptr<SourceFile>> open(const Object &file) = 0;

  /* The extended attributes that are replicated. Nothing if the object cannot be reached. */
  virtual Result<std::optional<Xattrs>> xattrs(const Object &object) = 0;

  /* Is the absolute path, which may lie outside the source, a name of this object? */
  virtual bool has_name(const struct stat &object, const std::string &path) = 0;

  /* The clock of its files' and records' times, in microseconds since the epoch; on another host,
   * that may be late by as much as a request takes. */
  virtual Result<std::int64_t> now() = 0;
  /* Zero is before the times of all files. */
  std::int64_t now_or_zero() {
    const auto time = now();
    return time ? *time : 0;
  }
};

}  // namespace tarn

#endif
