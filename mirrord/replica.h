/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The directory that changes are replayed into. Every path is relative to it, and no operation
 * reaches outside it, whatever the paths and whatever symbolic links lie in the replica.
 *
 * A write that succeeded may still fail at write-back: network file systems and quotas, for
 * example, report some errors only at close or sync. take_write_back_errors() and sync() return
 * these.
 *
 * No other program may change names in the replica meanwhile: descriptors of files and directories
 * are cached. One thread. Creating and setting modes need umask 0, which the caller sets.
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

namespace tarn {

class Replica {
 public:
  static Result<Replica> open(const std::string &directory);

  /*
   * Files in the replica may be set-user-id for whoever they belong to, and their contents may be
   * older or younger than that mode. Where the mount honours such modes, nobody but the owner gets
   * in: the replica's own directory is and stays 0700, whatever the source's is. True: its mode has
   * to be changed for that, which is allowed (else an error) and left to close_to_others. Called
   * once, before the first change.
   */
  Result<bool> open_to_others();
  Result<void> close_to_others();

  /* kAlready: the replica was as it should be before (or holds a file that was to be created, now
   * emptied). */
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
  /* Whatever stands there, with all below it. kAlready: nothing did. */
  Result<Done> remove_tree(const std::string &path);

  /* What stands there; nothing if nothing does, be it that its parent is missing. */
  Result<std::optional<struct stat>> find(const std::string &path);
  /* Adds their names, looked for in the whole replica. Error: the first thing that could not be
   * looked at; the rest was. */
  using Objects = std::set<std::pair<dev_t, ino_t>>;
  Result<void> names_of(const Objects &objects, std::vector<std::string> &found) {
    return names_below("", objects, found);
  }
  /* The objects of which remove_tree() has removed a name and left another since the last call, and
   * those that part() told of. */
  void part(const struct stat &object) { parted_.insert({object.st_dev, object.st_ino}); }
  bool has_parted() const { return !parted_.empty(); }
  Objects take_parted() { return std::exchange(parted_, {}); }
  /* Of a directory, without "." and "..". */
  Result<std::vector<std::string>> names(const std::string &path);

  /* What is set is changed; times are microseconds since the epoch, negative before it. */
  struct Attributes {
    std::optional<std::uint64_t> size = {};
    std::optional<std::uint32_t> uid = {};
    std::optional<std::uint32_t> gid = {};
    std::optional<std::uint32_t> mode = {};
    std::optional<std::int64_t> atime = {};
    std::optional<std::int64_t> mtime = {};
  };
  Result<Done> set_attributes(const std::string &path, const Attributes &wanted);

  /* A file that lost written data, as its close reported. Any operation may close cached files. */
  struct WriteBackError {
    std::string path;
    Error error;
  };
  /* Those since the last call. */
  std::vector<WriteBackError> take_write_back_errors();
  /* Closes all files, so that take_write_back_errors() is complete but for errors of sync(). */
  void close_files();
  /* Waits until all that was written is on the disk. The error is the file system's for whatever
   * was written to it, by others too, since the replica was opened. */
  Result<void> sync();

 private:
  explicit Replica(UniqueFd root) : root_(std::move(root)) {}

  /* A name and the directory it stands in; `fd` is the cache's. */
  struct Place {
    int fd;
    std::string name;
  };
  Result<std::vector<DirectoryEntry>> entries_of(const std::string &path);
  Result<void> names_below(const std::string &directory, const Objects &objects,
                           std::vector<std::string> &found);
  Result<Place> place(const std::string &path);
  /* Two places at once: the first one's descriptor is held while the second is looked up. */
  struct TwoPlaces {
    UniqueFd held;
    Place first;
    Place second;
  };
  Result<TwoPlaces> places(const std::string &first, const std::string &second);
  /* The file's descriptor for writing, from the cache or opened now. */
  Result<int> writable(const std::string &path);

  static constexpr std::size_t kCachedFiles = 128;
  static constexpr std::size_t kCachedDirectories = 64;

  UniqueFd root_;
  bool others_out_ = false; /* the root's mode has no bits for others */
  Objects parted_;
  FdCache files_{kCachedFiles};
  FdCache directories_{kCachedDirectories};
};

}  // namespace tarn

#endif
