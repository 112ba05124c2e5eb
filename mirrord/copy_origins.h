/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Which object of the source a path of the replica was copied from. So a second look can tell
 * whether there is still the same object under the name, whether its data have changed since, and
 * which names in the replica are names of one file. Only what was taken from the source is known
 * here; a copy that has several names is remembered for long, the others as long as they are
 * pending. Memory: kMost paths.
 */
#ifndef TARN_MIRRORD_COPY_ORIGINS_H
#define TARN_MIRRORD_COPY_ORIGINS_H

#include <sys/stat.h>

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "mirrord/replica.h"

namespace tarn {

class CopyOrigins {
 public:
  using Object = std::pair<dev_t, ino_t>;

  /* `copy` is the replica's object under the path. `whole`: all data were read when the source's
   * was as `status` says. */
  void put(const std::string &path, const Object &copy, const struct stat &status, bool whole);
  /* Records changed that object of the replica, perhaps less far than the source has come: it is no
   * longer as the source's object was, under whatever name. */
  void records_changed(const Object &copy);
  bool empty() const { return origins_.empty(); }

  /* The path has the contents that its object had at `ts` (microseconds since the epoch), when it
   * got a name of which no record tells. Only if the source's object has not been changed since is
   * it that one. What was known of this copy stays: it tells more. */
  void watch(const std::string &path, const Object &copy, const struct stat &status,
             std::uint64_t ts);
  /* The same where the source has nothing under that name any more. */
  void watch(const std::string &path) { insert(path, {.links = true}); }
  /* The path was copied from some object. */
  bool has(const std::string &path) const { return origins_.contains(path); }
  /* It is, or may be, a copy of an object with names of which no record tells. */
  bool watched(const std::string &path) const {
    const auto found = origins_.find(path);
    return found != origins_.end() && found->second.links;
  }
  /* The path was copied from that object. */
  bool same(const std::string &path, const struct stat &status) const;
  /* And the object's data are still those. */
  bool unchanged(const std::string &path, const struct stat &status) const;
  /* And the object has not been changed in any way since it was looked at. */
  bool current(const std::string &path, const struct stat &status) const;
  /* The paths whose objects have, or had, several names. */
  std::vector<std::string> with_links() const;
  /* The paths that were copied from that object. */
  std::set<std::string> paths_of(const struct stat &status) const;

  void linked(const std::string &existing, const std::string &path);
  void moved(const std::string &from, const std::string &to);
  void removed(const std::string &path);
  /* The path and what is below it follow the records again. */
  void follow_records_again(const std::string &path);

  static constexpr std::size_t kMost = 262144;

 private:
  struct Copy {
    dev_t device = 0;
    ino_t inode = 0;       /* 0: not known */
    timespec changed = {}; /* the source object's change time */
    bool past = false;     /* that time had passed when it was looked at */
    bool whole = false;
    bool links = false; /* it had several names */
    Object copy = {};   /* the replica's object; zeros: not known */
  };
  using Index = std::map<Object, std::set<std::string>>;

  void insert(const std::string &path, const Copy &copy);
  void unindex(const std::string &path, const Copy &copy);
  static void take_out(Index &index, const Object &object, const std::string &path);

  std::map<std::string, Copy> origins_;
  Index paths_;  /* by the source's object */
  Index copied_; /* by the replica's */
};

/* The replica's object under a path; zeros if there is none. */
CopyOrigins::Object object_of(Replica &replica, const std::string &path);

}  // namespace tarn

#endif
