// SPDX-License-Identifier: GPL-2.0
#include "mirrord/attributes.h"

#include <algorithm>
#include <cerrno>

#include "mirrord/file_status.h"
#include "module/os_public/Include/ox_msg.h"

namespace tarn {
namespace {

using Done = Replica::Done;

Replica::Attributes named_attributes(const SetAttr &change) {
  Replica::Attributes attributes;
  if (change.valid & OX_ATTR_SIZE) attributes.size = change.size;
  if (change.valid & OX_ATTR_UID) attributes.uid = change.uid;
  if (change.valid & OX_ATTR_GID) attributes.gid = change.gid;
  if (change.valid & OX_ATTR_MODE) attributes.mode = change.mode;
  if (change.valid & OX_ATTR_ATIME) attributes.atime = from_microseconds(change.atime);
  if (change.valid & OX_ATTR_MTIME) attributes.mtime = from_microseconds(change.mtime);
  return attributes;
}

bool is_special(const struct stat &status) {
  return !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode) && !S_ISLNK(status.st_mode);
}

/* Does the source have the recorded attributes? */
bool agrees(const SetAttr &c, const struct stat &theirs) {
  if ((c.valid & OX_ATTR_MODE) && ((c.mode ^ theirs.st_mode) & kModeBits) != 0) return false;
  if ((c.valid & OX_ATTR_UID) && c.uid != theirs.st_uid) return false;
  if ((c.valid & OX_ATTR_GID) && c.gid != theirs.st_gid) return false;
  if ((c.valid & OX_ATTR_SIZE) && c.size != static_cast<std::uint64_t>(theirs.st_size))
    return false;
  if ((c.valid & OX_ATTR_ATIME) && c.atime != microseconds(theirs.st_atim)) return false;
  return !(c.valid & OX_ATTR_MTIME) || c.mtime == microseconds(theirs.st_mtim);
}

/* Copies from the source the times that the change sets. */
Result<void> set_named_times(Replica &replica, const std::string &path, const SetAttr &c,
                             const struct stat &theirs) {
  Replica::Attributes times;
  if (c.valid & OX_ATTR_ATIME) times.atime = theirs.st_atim;
  if (c.valid & OX_ATTR_MTIME) times.mtime = theirs.st_mtim;
  if (!times.atime && !times.mtime) return {};
  const auto set = replica.set_attributes(path, times);
  return set ? Result<void>() : Result<void>(set.error());
}

struct Both {
  std::optional<struct stat> mine;
  std::optional<Source::Object> theirs;
  /* Is the replica's object a copy of the source's present one? */
  bool is_copy(Reconciler &reconciler, const std::string &path) const {
    return mine && theirs && same_type(*mine, theirs->status) &&
           reconciler.fetcher().origins().same(path, theirs->status);
  }
};

Result<Both> find_both(Reconciler &reconciler, Replica &replica, const std::string &path) {
  auto mine = replica.find(path);
  if (!mine) return mine.error();
  auto theirs = reconciler.source().find(path);
  if (!theirs) return theirs.error();
  return Both{*mine, std::move(*theirs)};
}

Result<Done> as_changed(const Result<void> &result) {
  if (!result) return result.error();
  return Done::kChanged;
}

}  // namespace

Result<Done> AttributeChange::apply(const std::string &path, const SetAttr &change) {
  const auto as_recorded = [&] {
    if (change.valid & OX_ATTR_SIZE) reconciler.records_change(path);
    return replica.set_attributes(path, named_attributes(change));
  };
  if (!reconciler.source().available()) return as_recorded();
  const auto both = find_both(reconciler, replica, path);
  if (!both) return both.error();
  const auto &[mine, theirs] = *both;
  if (reconciler.follows_source(path)) {
    if (!both->is_copy(reconciler, path)) return reconciler.reconcile(path);
    return from_source(path, change, *mine, *theirs);
  }
  if (theirs && !same_type(*mine, theirs->status) &&
      (is_special(*mine) || is_special(theirs->status)))
    return reconciler.reconcile(path);
  const auto as_recorded_in_doubt = [&, &mine = mine] {
    const auto size = static_cast<std::uint64_t>(mine->st_size);
    const bool sizes = (change.valid & OX_ATTR_SIZE) && change.size != size;
    reconciler.doubt(path, sizes ? std::min(change.size, size) : PendingPaths::kNoData);
    return as_recorded();
  };
  // The object was renamed or removed since.
  if (!theirs || !same_type(*mine, theirs->status)) return as_recorded_in_doubt();
  if (agrees(change, theirs->status)) {
    // Records carry whole microseconds.
    if (const auto done = as_recorded(); !done) return done;
    return as_changed(set_named_times(replica, path, change, theirs->status));
  }
  if (microseconds(theirs->status.st_ctim) + kTimestampSlackUs <
      static_cast<std::int64_t>(captured))
    return refused(path, change, *theirs);
  // The replica's object has a name more than the source's: they are different objects.
  if (!S_ISDIR(mine->st_mode) && mine->st_nlink > 1 && theirs->status.st_nlink == 1)
    return as_recorded_in_doubt();
  return from_source(path, change, *mine, *theirs);
}

/* The source's object has not changed since before the record. A rename would have changed its
 * change time, so it is the same object and the change was refused. */
Result<Done> AttributeChange::refused(const std::string &path, const SetAttr &change,
                                      const Source::Object &theirs) {
  if (change.valid & (OX_ATTR_MODE | OX_ATTR_UID | OX_ATTR_GID)) {
    const auto set = reconciler.fetcher().fetch_attributes(path, theirs);
    if (!set) return set.error();
  }
  const auto set = set_named_times(replica, path, change, theirs.status);
  if (!set) return set.error();
  return Done::kAlready;
}

/* The change was refused, or the source is ahead of the record. */
Result<Done> AttributeChange::from_source(const std::string &path, const SetAttr &change,
                                          const struct stat &mine, const Source::Object &theirs) {
  std::uint64_t in_doubt = PendingPaths::kNoData;
  if ((change.valid & OX_ATTR_SIZE) && S_ISREG(mine.st_mode)) {
    const auto my_size = static_cast<std::uint64_t>(mine.st_size),
               their_size = static_cast<std::uint64_t>(theirs.status.st_size);
    const std::uint64_t common = std::min(change.size, my_size);
    if (their_size > change.size || reconciler.follows_source(path)) {
      in_doubt = common;
      const auto fetched =
          reconciler.fetcher().fetch_data(path, theirs, common, PendingPaths::kNoData);
      if (!fetched) return fetched.error();
    } else {
      // Takes the recorded size if the source has it. If the source is shorter, a later record
      // truncates. Either may be said of another object that has the name by now, and the change
      // was refused.
      const bool confirmed = their_size == change.size;
      in_doubt = std::min(common, their_size);
      reconciler.records_change(path);
      const auto set = replica.set_attributes(path, {.size = confirmed ? change.size : common});
      if (!set) return set.error();
    }
  }
  if (change.valid & (OX_ATTR_MODE | OX_ATTR_UID | OX_ATTR_GID)) {
    const auto set = reconciler.fetcher().fetch_attributes(path, theirs);
    if (!set) return set.error();
  }
  if (!reconciler.follows_source(path)) reconciler.doubt(path, in_doubt);
  return as_changed(set_named_times(replica, path, change, theirs.status));
}

Result<Done> refresh_written(Reconciler &reconciler, Replica &replica, const std::string &path,
                             std::uint64_t offset, std::size_t length) {
  const auto both = find_both(reconciler, replica, path);
  if (!both) return both.error();
  if (!both->is_copy(reconciler, path) || !S_ISREG(both->mine->st_mode))
    return reconciler.reconcile(path);
  // Mode first: new bytes must not come under an old set-user-id bit.
  const auto like = reconciler.fetcher().fetch_attributes(path, *both->theirs);
  if (!like) return like.error();
  return as_changed(reconciler.fetcher().fetch_data(path, *both->theirs, offset, offset + length));
}

Result<void> drop_set_id(Reconciler &reconciler, Replica &replica, const std::string &path,
                         const struct stat &mine) {
  if (!has_set_id(mine) || !reconciler.source().available()) return {};
  const auto theirs = reconciler.source().find(path);
  if (!theirs) return theirs.error();
  if (*theirs && has_set_id((*theirs)->status) && (*theirs)->status.st_uid == mine.st_uid &&
      (*theirs)->status.st_gid == mine.st_gid)
    return {};
  reconciler.doubt(path, PendingPaths::kNoData);
  const auto set = replica.set_attributes(path, {.mode = mine.st_mode & 01777});
  return set ? Result<void>() : Result<void>(set.error());
}

}  // namespace tarn
