/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The directory in which changes are replayed. Paths are relative to it, and no operation leaves
 * it, whatever the paths and the symbolic links in the replica.
 *
 * A write that succeeded may still fail at write-back: network file systems and quotas, for
 * example, report some errors only at close or sync. take_write_back_errors() and sync() return
 * these.
 *
 * No other program may change names in the replica at the same time: descriptors of files and
 * directories are cached. One thread. Creating and setting modes need umask 0, which the caller
 * sets.
 */
#ifndef TARN_MIRRORD_REPLICA_H
#define TARN_MIRRORD_REPLICA_H

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/result.h"
#include "base/unique_fd.h"
#include "client/messages.h"
#include "mirrord/directory_walk.h"
#include "mirrord/fd_cache.h"
#include "mirrord/xattrs.h"

namespace tarn {

class Replica {
 public:
  static Result<Replica> open(const std::string &directory);

  /*
   * Files in the replica may be set-user-id for any owner, with contents that are older or newer
   * than the mode. On a mount that honours set-user-id, the replica's root directory is therefore
   * mode 0700, whatever the source's mode. Returns whether its mode must be changed for that by
   * close_to_others(); it is an error if we may not. Call it once, before the first change.
   */
  Result<bool> must_close_to_others();
  Result<void> close_to_others();

  /* kAlready: the replica had the change before. For create(): the file existed and was
   * truncated. */
  enum class Done { kChanged, kAlready };

  Result<Done> create(const std::string &path, std::uint32_t mode);
  Result<Done> mkdir(const std::string &path, std::uint32_t mode);
  Result<Done> unlink(const std::string &path);
  Result<Done> rmdir(const std::string &path);
  Result<Done> symlink(const std::string &target, const std::string &path);
  Result<Done> link(const std::string &existing, const std::string &path);
  Result<Done> rename(const std::string &from, const std::string &to);
  Result<Done> write(const std::string &path, std::uint64_t offset, Bytes data);
  /* A FIFO, a socket or a device node. */
  Result<Done> make_special(const std::string &path, std::uint32_t mode, dev_t device);
  /* Removes an object of any type, with all below it. kAlready: there was none. */
  Result<Done> remove_tree(const std::string &path);

  /* The object's status; nothing if it or a parent does not exist. */
  Result<std::optional<struct stat>> find(const std::string &path);
  /* As find(), of what write() would change: a file that is still open is asked itself. */
  Result<std::optional<struct stat>> find_written(const std::string &path);
  /* Searches the whole replica for names of these objects and adds them to `found`. Goes on after
   * an error and returns the first one. */
  using Objects = std::set<std::pair<dev_t, ino_t>>;
  Result<void> names_of(const Objects &objects, std::vector<std::string> &found) {
    return names_below("", objects, found);
  }
  /* Objects that lost a name but still have another one, since the last call: by remove_tree(), or
   * by note_partly_unlinked(). */
  void note_partly_unlinked(const struct stat &object) {
    partly_unlinked_.insert({object.st_dev, object.st_ino});
  }
  void note_partly_unlinked(const Objects &objects) {
    partly_unlinked_.insert(objects.begin(), objects.end());
  }
  const Objects &partly_unlinked() const { return partly_unlinked_; }
  Objects take_partly_unlinked() { return std::exchange(partly_unlinked_, {}); }
  /* The names in a directory, without "." and "..". */
  Result<std::vector<std::string>> names(const std::string &path);

  /* Only members that are set are changed. */
  struct Attributes {
    std::optional<std::uint64_t> size = {};
    std::optional<std::uint32_t> uid = {};
    std::optional<std::uint32_t> gid = {};
    std::optional<std::uint32_t> mode = {};
    std::optional<timespec> atime = {};
    std::optional<timespec> mtime = {};
  };
  Result<Done> set_attributes(const std::string &path, const Attributes &wanted);

  /* The place of the object's extended attributes, until the next operation. */
  Result<XattrPlace> xattr_place(const std::string &path);
  /* Is the path the root, and closed to others, so that it has no access list? */
  bool is_closed(const std::string &path) const { return path.empty() && closed_to_others_; }

  /* Returns a descriptor of the regular file, which must exist, for writing, and for reading where
   * we may. It is the replica's and lasts until the next operation that takes a path. */
  Result<int> writable(const std::string &path);

  /* A file whose close reported lost data. Any operation may close cached files. */
  struct WriteBackError {
    std::string path;
    Error error;
  };
  /* Returns the errors since the last call. */
  std::vector<WriteBackError> take_write_back_errors();
  /* Closes all files; after it only sync() can report further write-back errors. */
  void close_files();
  /* Waits until all data is on the disk. Returns a write-back error that any program's data on this
   * file system had since the replica was opened. */
  Result<void> sync();

 private:
  explicit Replica(UniqueFd root) : root_(std::move(root)) {}

  /* A name and its directory, whose descriptor the cache owns. */
  struct Place {
    int fd;
    std::string name;
  };
  Result<std::vector<DirectoryEntry>> entries_of(const std::string &path);
  Result<void> names_below(const std::string &directory, const Objects &objects,
                           std::vector<std::string> &found);
  Result<Place> place(const std::string &path);
  /* Two places: the first one's descriptor is duplicated, as the second look-up may close it. */
  struct TwoPlaces {
    UniqueFd held;
    Place first;
    Place second;
  };
  Result<TwoPlaces> places(const std::string &first, const std::string &second);

  static constexpr std::size_t kCachedFiles = 128;
  static constexpr std::size_t kCachedDirectories = 64;

  UniqueFd root_;
  bool closed_to_others_ = false; /* the root has mode 0700 */
  Objects partly_unlinked_;
  FdCache files_{kCachedFiles};
  FdCache directories_{kCachedDirectories};
};

}  // namespace tarn

#endif
