/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Copies objects from the source to the replica: types, data, link targets, owners, modes, times,
 * and hard links. Data is read in pieces; holes of a file may be filled.
 *
 * The source may change during a copy, which then mixes old and new states until the records of
 * these changes are applied (pending_paths.h). A set-user-id file is an exception: it gets its mode
 * only with data that was all read while the file did not change. One thread.
 */
#ifndef TARN_MIRRORD_FETCHER_H
#define TARN_MIRRORD_FETCHER_H

#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "mirrord/copy_origins.h"
#include "mirrord/replica.h"
#include "mirrord/source.h"

namespace tarn {

class Fetcher {
 public:
  Fetcher(Source &source, Replica &replica) : source_(source), replica_(replica) {}

  /* Is this path, below a fetched directory, to be replicated? */
  using Included = std::function<bool(const std::string &path)>;

  /* Replaces the replica's object by a copy of this one, with the tree below it. Goes on after an
   * error and returns the first one. */
  Result<void> fetch(const std::string &path, const Source::Object &object,
                     const Included &included);

  /* Makes the replica's object a directory like this one, but leaves what is in it. */
  Result<void> make_directory(const std::string &path, const Source::Object &object);

  /* Copies bytes `from` to `to` of a regular file that both have. If `to` is beyond the source's
   * end, the replica's file is given the source's size. */
  Result<void> fetch_data(const std::string &path, const Source::Object &object, std::uint64_t from,
                          std::uint64_t to);

  /* Copies owner and mode of an object that both have. */
  Result<void> fetch_attributes(const std::string &path, const Source::Object &object);

  /* Sets owner, mode and times, whatever the type of the replica's object. */
  Result<void> set_all_attributes(const std::string &path, const struct stat &status);

  CopyOrigins &origins() { return origins_; }

  /* Returns the objects fetched since the last call that have several names in the source. */
  using Objects = std::map<std::pair<dev_t, ino_t>, struct stat>;
  Objects take_multiply_linked() { return std::exchange(multiply_linked_, {}); }

 private:
  bool unchanged(const std::string &path, const struct stat &status);
  void note_copy(const std::string &path, const struct stat &status, bool whole);
  Result<bool> link_copies(const std::string &path, const Source::Object &object);
  Result<void> link_to_copy(const std::string &of, const std::string &name);
  Result<void> make_room(const std::string &path, const Source::Object &object);
  Result<void> file(const std::string &path, const Source::Object &object);
  Result<void> directory(const std::string &path, const Source::Object &object,
                         const Included &included);
  Result<void> link(const std::string &path, const Source::Object &object);
  Result<void> special(const std::string &path, const Source::Object &object);
  Result<void> copy(const std::string &path, const Source::Object &object, std::uint64_t from,
                    std::uint64_t to);

  Source &source_;
  Replica &replica_;
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
