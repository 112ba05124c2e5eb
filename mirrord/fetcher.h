/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Makes objects of the replica as the source has them: types, data, targets, owners, modes, times,
 * and which names are names of one file. Data are read in pieces; holes of a file may be filled.
 *
 * The source goes on changing meanwhile. What is read is a mixture of then and now that the records
 * of these changes set right (pending_paths.h); but a set-user-id file is given its mode only with
 * data that were all read while the file stayed as it was. One thread.
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

  /* Below a fetched directory: is this path the replica's business? */
  using Included = std::function<bool(const std::string &path)>;

  /* Puts a copy of the object, with all below it, in place of what the replica has there. The error
   * is the first one; what could be copied was. */
  Result<void> fetch(const std::string &path, const Source::Object &object,
                     const Included &included);

  /* The bytes from `from` to `to` of a regular file that both have; if `to` is beyond the end, the
   * file ends as in the source. */
  Result<void> fetch_data(const std::string &path, const Source::Object &object, std::uint64_t from,
                          std::uint64_t to);

  /* Owner and mode of an object that both have. */
  Result<void> fetch_attributes(const std::string &path, const Source::Object &object);

  /* Owner, mode and times, whatever the replica's object is. */
  Result<void> set_like(const std::string &path, const struct stat &status);

  CopyOrigins &origins() { return origins_; }

  /* What was fetched since the last call and has several names in the source. */
  using Objects = std::map<std::pair<dev_t, ino_t>, struct stat>;
  Objects take_several() { return std::exchange(several_, {}); }

 private:
  bool unchanged(const std::string &path, const struct stat &status);
  void note_copy(const std::string &path, const struct stat &status, bool whole);
  Result<bool> join(const std::string &path, const Source::Object &object);
  Result<void> make_same(const std::string &of, const std::string &name);
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
  Objects several_;
  std::set<std::string> refused_devices_; /* said by name already */
};

/* Set-user-id, or set-group-id of a program: who changes such a file must not keep the bit. */
bool has_set_id(const struct stat &status);

bool same_type(const struct stat &a, const struct stat &b);

}  // namespace tarn

#endif
