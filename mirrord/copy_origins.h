/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Remembers which source object each path of the replica was copied from. Tells whether the source
 * still has the same object under the name, whether its data has changed since, and which names in
 * the replica belong to one file. Only copies made from the source are known here. A copy with
 * several names is remembered for long, others while they are pending. Memory: kMost paths; those
 * with one name are forgotten first.
 */
#ifndef TARN_MIRRORD_COPY_ORIGINS_H
#define TARN_MIRRORD_COPY_ORIGINS_H

#include <sys/stat.h>

#include <cstdint>
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

  /* `copy` is the replica's object under the path, `status` the source's. `whole`: all data was
   * read while the source's object had that status. `now`: by the source's clock; 0: unknown. */
  void put(const std::string &path, const Object &copy, const struct stat &status, bool whole,
           std::int64_t now);
  /* Records changed this object of the replica, perhaps to a state that the source has left behind.
   * None of its names is an up-to-date copy any more. */
  void records_changed(const Object &copy);
  bool empty() const { return origins_.empty(); }

  /* The path's object got a name outside the rule, whose changes are not recorded, and the replica
   * has its contents of `ts` (microseconds since the epoch). `status` is the source's object: it is
   * the same one only if it has not changed since `ts`. An origin already known for the copy is
   * kept. */
  void watch(const std::string &path, const Object &copy, const struct stat &status,
             std::uint64_t ts, std::int64_t now);
  /* The same if the source does not have the name any more. */
  void watch(const std::string &path) { insert(path, {.many_links = true}); }
  /* The object has a name outside the rule, or had one. Also when that is gone, changes through
   * what was looked up by it are not recorded, so the path is watched until it has another object.
   */
  void named_outside(const std::string &path);
  bool is_named_outside(const std::string &path) const {
    const auto found = origins_.find(path);
    return found != origins_.end() && found->second.outside;
  }
  /* Was a path with several names forgotten? */
  bool has_forgotten() const { return forgotten_; }
  /* Is the path a copy of a source object? */
  bool has(const std::string &path) const { return origins_.contains(path); }
  /* Is it, or may it be, a copy of an object with unrecorded names? */
  bool watched(const std::string &path) const {
    const auto found = origins_.find(path);
    return found != origins_.end() && found->second.many_links;
  }
  /* Was the path copied from this object? */
  bool same(const std::string &path, const struct stat &status) const;
  /* And is the object's data unchanged since? */
  bool unchanged(const std::string &path, const struct stat &status) const;
  /* And is the object unchanged in every way since? */
  bool current(const std::string &path, const struct stat &status) const;
  /* The paths whose source objects have, or had, several names. */
  std::vector<std::string> with_many_links() const;
  /* The paths that were copied from this object. */
  std::set<std::string> paths_of(const struct stat &status) const;

  void linked(const std::string &existing, const std::string &path);
  void moved(const std::string &from, const std::string &to);
  void removed(const std::string &path);
  /* The path and all below it follow the records again. */
  void follow_records_again(const std::string &path);

  static constexpr std::size_t kMost = 262144;

 private:
  struct Copy {
    dev_t device = 0;
    ino_t inode = 0;         /* 0: unknown */
    timespec changed = {};   /* the source object's change time */
    bool ctime_past = false; /* `changed` was older than kTimestampSlackUs when it was read */
    bool whole = false;
    bool many_links = false; /* the source object had several names */
    bool outside = false;    /* one of them outside the rule */
    Object copy = {};        /* the replica's object; zeros: unknown */
  };
  using Index = std::map<Object, std::set<std::string>>;

  void insert(const std::string &path, const Copy &copy);
  void set_many_links(Copy &copy);
  void make_room();
  void unindex(const std::string &path, const Copy &copy);
  static void erase_path(Index &index, const Object &object, const std::string &path);

  std::map<std::string, Copy> origins_;
  Index paths_by_origin_; /* by the source's object */
  Index paths_by_copy_;   /* by the replica's */
  std::size_t with_many_links_ = 0;
  bool forgotten_ = false;
};

/* The replica's object under a path; zeros if there is none. */
CopyOrigins::Object object_of(Replica &replica, const std::string &path);

}  // namespace tarn

#endif
