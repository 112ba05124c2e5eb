/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Copies objects from the source to the replica: types, data with its holes, link targets, owners,
 * modes, times, extended attributes, access lists, and hard links. Data that the replica has
 * already is read and compared, and only what differs is written.
 *
 * The source may change during a copy, which then mixes old and new states until the records of
 * these changes are applied (pending_paths.h). Privilege is an exception: a file gets its
 * set-user-id bit or capability only with data that was all read while the file did not change. One
 * thread, except that any thread may read the counters of data().
 */
#ifndef TARN_MIRRORD_FETCHER_H
#define TARN_MIRRORD_FETCHER_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "mirrord/copy_origins.h"
#include "mirrord/data_copier.h"
#include "mirrord/replica.h"
#include "mirrord/source.h"
#include "mirrord/xattrs.h"

namespace tarn {

class Fetcher {
 public:
  Fetcher(Source &source, Replica &replica) : source_(source), replica_(replica) {}

  /* kSizeAndTime: a regular file whose size and modification time are equal on both sides, and that
   * has not been changed since its copy was, is taken to have the same data, and only its
   * attributes are compared. For copies that were made by this program or one that keeps times. */
  enum class Trust { kNone, kSizeAndTime };
  void set_trust(Trust trust) { trust_ = trust; }
  /* The replica's data is compared as it is on the disk. Memory may have what a write that failed
   * late was to write. */
  void set_from_disk(bool from_disk) { from_disk_ = from_disk; }

  /* How much of the source's data is read per second. 0: no limit. */
  void set_rate(std::uint64_t bytes_per_second) { data_.pace().set_rate(bytes_per_second); }
  /* When the flag, which any thread may set, is true, fetch() and fetch_data() fail with -ECANCELED
   * and leave the rest as it was. Null: none. */
  void set_stop(const std::atomic<bool> *stop) { data_.pace().set_stop(stop); }
  /* Counters of what was copied. */
  const DataCopier &data() const { return data_; }

  /* Is this path, below a fetched directory, to be replicated? */
  using Included = std::function<bool(const std::string &path)>;

  /* kAbsent: the replica was looked at already, and has nothing there. */
  enum class Mine { kUnknown, kAbsent };
  /* Replaces the replica's object by a copy of this one, with the tree below it. Goes on after an
   * error and returns the worst one. */
  Result<void> fetch(const std::string &path, const Source::Object &object,
                     const Included &included, Mine known = Mine::kUnknown);

  /* Makes the replica's object a directory like this one, but leaves what is in it. */
  Result<void> make_directory(const std::string &path, const Source::Object &object);

  /* Copies bytes `from` to `to` of a regular file that both have. If `to` is beyond the source's
   * end, the replica's file is given the source's size. */
  Result<void> fetch_data(const std::string &path, const Source::Object &object, std::uint64_t from,
                          std::uint64_t to);

  /* Copies owner, mode and extended attributes of an object that both have. */
  Result<void> fetch_attributes(const std::string &path, const Source::Object &object);

  /* Copies the extended attributes of an object that both have. */
  Result<void> fetch_xattrs(const std::string &path, const Source::Object &object);

  /* Sets owner, mode and times, whatever the type of the replica's object. */
  Result<void> set_all_attributes(const std::string &path, const struct stat &status);

  CopyOrigins &origins() { return origins_; }
  const CopyOrigins &origins() const { return origins_; }

  /* Returns the objects fetched since the last call that have several names in the source. */
  using Objects = std::map<std::pair<dev_t, ino_t>, struct stat>;
  Objects take_multiply_linked() { return std::exchange(multiply_linked_, {}); }

 private:
  enum class Times { kSet, kIfDifferent, kLeave };
  struct Wanted {
    struct stat status;
    std::optional<Xattrs> xattrs = {}; /* nothing: they are left as they are */
    Times times = Times::kIfDifferent;
  };

  Result<void> fetch_over(const std::string &path, const Source::Object &object,
                          const Included &included, Mine known);
  bool trusted(const struct stat &mine, const struct stat &theirs) const;
  Result<struct stat> existing(const std::string &path);
  Result<bool> link_copies(const std::string &path, const Source::Object &object);
  Result<void> link_to_copy(const std::string &of, const std::string &name);
  Result<bool> make_room(const std::string &path, const Source::Object &object,
                         const struct stat &mine);
  Result<void> remove(const std::string &path);
  Result<void> file(const std::string &path, const Source::Object &object,
                    const std::optional<struct stat> &mine);
  Result<void> directory(const std::string &path, const Source::Object &object,
                         const Included &included);
  Result<void> link(const std::string &path, const Source::Object &object);
  Result<void> special(const std::string &path, const Source::Object &object,
                       const std::optional<struct stat> &mine);
  Result<void> finish(const std::string &path, const Source::Object &object);
  Result<struct stat> fill(const std::string &path, SourceFile &source, const struct stat &theirs,
                           std::uint64_t from, std::uint64_t to);
  Result<void> take_attributes(const std::string &path, const Source::Object &object,
                               const struct stat &mine, const struct stat &wanted);
  Result<void> set_all(const std::string &path, const struct stat &mine, const Wanted &wanted);
  Result<bool> set_owner(const std::string &path, const struct stat &mine,
                         const struct stat &status);
  Result<void> set_xattrs(const std::string &path, const std::optional<Xattrs> &theirs, bool &mode);

  Source &source_;
  Replica &replica_;
  Trust trust_ = Trust::kNone;
  bool from_disk_ = false;
  DataCopier data_;
  XattrCopier xattrs_;
  CopyOrigins origins_;
  Objects multiply_linked_;
  std::set<std::string> refused_devices_; /* already reported by path */
};

/* Is the file set-user-id, or set-group-id and executable? A change of its data must clear the
 * bit. */
bool has_set_id(const struct stat &status);

bool same_type(const struct stat &a, const struct stat &b);

}  // namespace tarn

#endif
