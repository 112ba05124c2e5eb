// SPDX-License-Identifier: GPL-2.0
#include "mirrord/fetcher.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <optional>
#include <thread>

#include "base/text.h"
#include "mirrord/failures.h"
#include "mirrord/file_status.h"

namespace tarn {
namespace {

constexpr std::uint32_t kSetIds = S_ISUID | S_ISGID;
constexpr std::uint64_t kToTheEnd = std::numeric_limits<std::uint64_t>::max();

/* How long a set-user-id file must not have changed, and how often we wait for that. */
constexpr std::chrono::milliseconds kStableFor{50};
constexpr int kStableTries = 40;

constexpr int kPresentTries = 8;

/* A change time in the future is of before the clock was set back: a change would make another. */
bool is_stable(const struct stat &status, std::int64_t now) {
  const std::int64_t age = now - microseconds(status.st_ctim);
  return std::abs(age) > std::chrono::microseconds(kStableFor).count();
}

bool has_capability(const Xattrs &xattrs) {
  return xattrs.contains(kCapability);
}

bool same_owner(const struct stat &a, const struct stat &b) {
  return a.st_uid == b.st_uid && a.st_gid == b.st_gid;
}

bool same_mode(const struct stat &a, const struct stat &b) {
  return ((a.st_mode ^ b.st_mode) & kModeBits) == 0;
}

bool is_behind(const timespec &a, const timespec &b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

template <class T>
Result<void> plain(const Result<T> &result) {
  if (!result) return result.error();
  return {};
}

}  // namespace

bool has_set_id(const struct stat &status) {
  if (!S_ISREG(status.st_mode)) return false;
  return (status.st_mode & S_ISUID) ||
         (status.st_mode & (S_ISGID | S_IXGRP)) == (S_ISGID | S_IXGRP);
}

bool same_type(const struct stat &a, const struct stat &b) {
  return (a.st_mode & S_IFMT) == (b.st_mode & S_IFMT);
}

Result<struct stat> Fetcher::existing(const std::string &path) {
  const auto mine = replica_.find(path);
  if (!mine) return mine.error();
  if (!*mine) return system_error(ENOENT, "the copy was removed");
  return **mine;
}

Result<void> Fetcher::set_all_attributes(const std::string &path, const struct stat &status) {
  const auto mine = existing(path);
  if (!mine) return mine.error();
  return set_all(path, *mine, {status, std::nullopt});
}

/* Only the differences: without privilege, even setting the same owner fails. */
Result<bool> Fetcher::set_owner(const std::string &path, const struct stat &mine,
                                const struct stat &status) {
  if (same_owner(mine, status)) return false;
  Replica::Attributes wanted;
  if (mine.st_uid != status.st_uid) wanted.uid = status.st_uid;
  if (mine.st_gid != status.st_gid) wanted.gid = status.st_gid;
  const auto set = replica_.set_attributes(path, wanted);
  if (!set) return set.error();
  return true;
}

/* The order matters: a new owner clears set-id bits and the capability, and a new access list
 * changes the mode. */
Result<void> Fetcher::set_all(const std::string &path, const struct stat &mine,
                              const Wanted &wanted) {
  const struct stat &status = wanted.status;
  const auto owner = set_owner(path, mine, status);
  if (!owner) return owner.error();
  bool mode = *owner || !same_mode(mine, status);
  const auto xattrs = set_xattrs(path, wanted.xattrs, mode);
  Replica::Attributes rest;
  if (mode && !S_ISLNK(status.st_mode)) rest.mode = status.st_mode & kModeBits;
  const bool times = wanted.times == Times::kSet || !same_time(mine.st_mtim, status.st_mtim) ||
                     !same_time(mine.st_atim, status.st_atim);
  if (times && wanted.times != Times::kLeave) {
    rest.atime = status.st_atim;
    rest.mtime = status.st_mtim;
  }
  if (rest.mode || rest.mtime) {
    if (const auto set = replica_.set_attributes(path, rest); !set) return set.error();
  }
  return xattrs;
}

/* `mode`: set to true if it must be set again. */
Result<void> Fetcher::set_xattrs(const std::string &path, const std::optional<Xattrs> &theirs,
                                 bool &mode) {
  if (!theirs) return {};
  const auto at = replica_.xattr_place(path);
  if (!at) return at.error();
  auto mine = read_xattrs(*at);
  if (!mine) return Error{mine.error().code, "of the replica: " + mine.error().text};
  if (!replica_.is_closed(path)) return xattrs_.copy(*at, {*mine, *theirs}, mode);
  Xattrs others = *theirs;
  others.erase(kAccessList);
  return xattrs_.copy(*at, {*mine, others}, mode);
}

/* Makes the range equal; returns the status of the replica's file before that. */
Result<struct stat> Fetcher::fill(const std::string &path, SourceFile &source,
                                  const struct stat &theirs, std::uint64_t from, std::uint64_t to) {
  const auto file = replica_.writable(path);
  if (!file) return file.error();
  struct stat mine;
  if (fstat(*file, &mine) != 0) return system_error(errno, "the replica's file cannot be read");
  if (from_disk_) (void)posix_fadvise(*file, 0, 0, POSIX_FADV_DONTNEED);
  const auto size = static_cast<std::uint64_t>(theirs.st_size);
  const auto now = data_.copy({source, *file, static_cast<std::uint64_t>(mine.st_size)}, from,
                              std::min(to, size));
  if (!now) return now.error();
  if (*now > size || (to >= size && *now != size)) {
    if (const auto cut = replica_.set_attributes(path, {.size = size}); !cut) return cut.error();
  }
  return mine;
}

Result<void> Fetcher::fetch_data(const std::string &path, const Source::Object &object,
                                 std::uint64_t from, std::uint64_t to) {
  const auto file = source_.open(object);
  if (!file) return file.error();
  const auto status = (*file)->begin(from, to);
  if (!status) return status.error();
  const auto filled = fill(path, **file, *status, from, to);
  if (!filled) return filled.error();
  // Writing has set the times.
  return plain(replica_.set_attributes(path, {.atime = status->st_atim, .mtime = status->st_mtim}));
}

Result<void> Fetcher::fetch_attributes(const std::string &path, const Source::Object &object) {
  const auto mine = existing(path);
  if (!mine) return mine.error();
  return take_attributes(path, object, *mine, object.status);
}

Result<void> Fetcher::fetch_xattrs(const std::string &path, const Source::Object &object) {
  const auto mine = existing(path);
  if (!mine) return mine.error();
  struct stat wanted = *mine;
  // A change of the access list may change the mode.
  wanted.st_mode = (object.status.st_mode & kModeBits) | (mine->st_mode & S_IFMT);
  return take_attributes(path, object, *mine, wanted);
}

/* Owner and mode of `wanted`, and the object's extended attributes. */
Result<void> Fetcher::take_attributes(const std::string &path, const Source::Object &object,
                                      const struct stat &mine, const struct stat &wanted) {
  auto theirs = source_.xattrs(object);
  if (!theirs) return theirs.error();
  const bool owner = !same_owner(mine, wanted);
  const bool mode = !S_ISLNK(mine.st_mode) && !same_mode(mine, wanted);
  // Privilege must go together with the data that the source's file has.
  if ((owner || mode) && has_set_id(wanted)) return file(path, object, mine);
  if (S_ISREG(mine.st_mode) && *theirs && has_capability(**theirs)) {
    const auto at = replica_.xattr_place(path);
    if (!at) return at.error();
    const auto has = read_xattrs(*at);
    if (!has) return has.error();
    const auto capability = has->find(kCapability);
    if (owner || capability == has->end() || capability->second != (*theirs)->at(kCapability))
      return file(path, object, mine);
  }
  return set_all(path, mine, {wanted, std::move(*theirs), Times::kLeave});
}

/* Makes `path` and the other copies of this object one file in the replica. */
Result<bool> Fetcher::link_copies(const std::string &path, const Source::Object &object) {
  bool joined = false;
  for (const std::string &other : origins_.paths_of(object.status)) {
    if (other == path) continue;
    const auto theirs = replica_.find(other);
    if (!theirs || !*theirs || !same_type(**theirs, object.status)) continue;
    const auto there = source_.find(other);
    if (!there && is_away(there.error())) return there.error();
    if (!there || !*there || !same_object((*there)->status, object.status)) continue;
    // The names may have become separate files while their common object was unknown.
    const auto made = joined ? link_to_copy(path, other) : link_to_copy(other, path);
    if (!made) return made.error();
    joined = true;
  }
  return joined;
}

/* Makes `name` a hard link to the copy at `of`. */
Result<void> Fetcher::link_to_copy(const std::string &of, const std::string &name) {
  const auto copy = replica_.find(of), mine = replica_.find(name);
  if (!copy) return copy.error();
  if (!mine) return mine.error();
  if (!*copy) return system_error(ENOENT, "the copy was removed");
  if (!*mine || !same_object(**copy, **mine)) {
    if (const auto gone = replica_.remove_tree(name); !gone) return gone.error();
    if (const auto linked = replica_.link(of, name); !linked) return linked.error();
  }
  origins_.linked(of, name);
  return {};
}

/* Removes an object of the replica that cannot become the copy. True: it did. */
Result<bool> Fetcher::make_room(const std::string &path, const Source::Object &object,
                                const struct stat &mine) {
  const bool directory = S_ISDIR(object.status.st_mode);
  const bool usable = same_type(mine, object.status);
  // Names that the source's object does not have must not get its contents. Its own names are
  // linked to the copy again later.
  const bool shared = !directory && mine.st_nlink > 1 && !origins_.same(path, object.status);
  if (usable && !shared) return false;
  origins_.removed(path);
  const auto gone = replica_.remove_tree(path);
  if (!gone) return gone.error();
  return true;
}

/* Are both taken as having the same data without reading it? Whoever writes a file can set its
 * modification time back, but not its change time. Of names that are not one file in the source,
 * but in the replica, the last ones have other numbers of links. */
bool Fetcher::trusted(const struct stat &mine, const struct stat &theirs) const {
  return trust_ == Trust::kSizeAndTime && S_ISREG(theirs.st_mode) && S_ISREG(mine.st_mode) &&
         mine.st_size == theirs.st_size && same_time(mine.st_mtim, theirs.st_mtim) &&
         !is_behind(theirs.st_ctim, mine.st_ctim) && mine.st_nlink == theirs.st_nlink &&
         has_set_id(mine) == has_set_id(theirs);
}

/* An object of a remote source may leave its path before it is copied: then copies what the path
 * has instead. */
Result<void> Fetcher::fetch(const std::string &path, const Source::Object &object,
                            const Included &included, Mine known) {
  auto fetched = fetch_over(path, object, included, known);
  for (int tries = kPresentTries; object.remote && tries > 0; --tries) {
    if (fetched || fetched.error().code != -ENOENT) break;
    const auto there = source_.find(path);
    if (!there) return there.error();
    if (!*there) return path.empty() ? fetched : remove(path);
    fetched = fetch_over(path, **there, included, Mine::kUnknown);
  }
  return fetched;
}

Result<void> Fetcher::fetch_over(const std::string &path, const Source::Object &object,
                                 const Included &included, Mine known) {
  const struct stat &theirs = object.status;
  bool look = known == Mine::kUnknown;
  if (!S_ISDIR(theirs.st_mode) && theirs.st_nlink > 1) {
    multiply_linked_[{theirs.st_dev, theirs.st_ino}] = theirs;
    const auto joined = link_copies(path, object);
    if (!joined) return joined.error();
    look = look || *joined;
  }
  std::optional<struct stat> mine;
  if (look) {
    const auto found = replica_.find(path);
    if (!found) return found.error();
    mine = *found;
  }
  if (mine && trusted(*mine, theirs)) {
    origins_.put(path, {mine->st_dev, mine->st_ino}, theirs, true, source_.now_or_zero());
    return take_attributes(path, object, *mine, theirs);
  }
  if (mine) {
    const auto removed = make_room(path, object, *mine);
    if (!removed) return removed.error();
    if (*removed) mine.reset();
  }
  switch (theirs.st_mode & S_IFMT) {
    case S_IFDIR:
      return directory(path, object, included);
    case S_IFREG:
      return mine && origins_.unchanged(path, theirs) ? take_attributes(path, object, *mine, theirs)
                                                      : file(path, object, mine);
    case S_IFLNK:
      return link(path, object);
  }
  return special(path, object, mine);
}

Result<void> Fetcher::file(const std::string &path, const Source::Object &object,
                           const std::optional<struct stat> &mine) {
  if (!mine) {
    if (const auto made = replica_.create(path, 0600); !made) return made.error();
  } else if (has_set_id(*mine)) {
    const auto taken = replica_.set_attributes(path, {.mode = mine->st_mode & 01777});
    if (!taken) return taken.error();
  }
  const auto reading = source_.open(object);
  if (!reading) return reading.error();
  SourceFile &source = **reading;
  for (int tries = kStableTries;; --tries) {
    auto before = source.begin(0, kToTheEnd);
    if (!before) return before.error();
    const auto filled = fill(path, source, *before, 0, kToTheEnd);
    if (!filled) return filled.error();
    auto xattrs = source.xattrs();
    if (!xattrs) return xattrs.error();
    const auto after = source.end();
    if (!after) return after.error();
    const auto now = source_.now();
    if (!now) return now.error();
    const bool same = same_time(before->st_ctim, after->st_ctim);
    const bool privilege = has_set_id(*before) || has_capability(*xattrs);
    if (privilege && (!same || !is_stable(*after, *now))) {
      if (tries > 0) {
        std::this_thread::sleep_for(kStableFor);
        continue;
      }
      // It keeps changing: the records of these changes cause another fetch.
      before->st_mode &= ~kSetIds;
      xattrs->erase(kCapability);
    }
    origins_.put(path, {filled->st_dev, filled->st_ino}, *before, same, *now);
    return set_all(path, *filled, {*before, std::move(*xattrs), Times::kSet});
  }
}

/* Sets everything of a copy that is no regular file. */
Result<void> Fetcher::finish(const std::string &path, const Source::Object &object) {
  const auto mine = existing(path);
  if (!mine) return mine.error();
  origins_.put(path, {mine->st_dev, mine->st_ino}, object.status, false, source_.now_or_zero());
  auto theirs = source_.xattrs(object);
  if (!theirs) return theirs.error();
  return set_all(path, *mine, {object.status, std::move(*theirs)});
}

Result<void> Fetcher::remove(const std::string &path) {
  origins_.removed(path);
  return plain(replica_.remove_tree(path));
}

Result<void> Fetcher::directory(const std::string &path, const Source::Object &object,
                                const Included &included) {
  auto theirs = source_.entries(object);
  if (!theirs) return theirs.error();
  const auto made = replica_.mkdir(path, 0700);
  if (!made) return made.error();
  std::set<std::string> mine;
  if (*made == Replica::Done::kAlready) {
    const auto names = replica_.names(path);
    if (!names) return names.error();
    mine.insert(names->begin(), names->end());
  }
  std::sort(theirs->begin(), theirs->end(),
            [](const DirectoryEntry &a, const DirectoryEntry &b) { return a.name < b.name; });
  const std::string below = path.empty() ? "" : path + "/";
  Result<void> worst;
  std::set<std::string> other = mine;
  for (const DirectoryEntry &entry : *theirs) other.erase(entry.name);
  for (const std::string &name : other) {
    if (included(below + name)) keep_worst(worst, remove(below + name));
  }
  for (const DirectoryEntry &entry : *theirs) {
    const std::string name = below + entry.name;
    if (!included(name)) continue;
    if (const auto go_on = data_.pace().spend(0); !go_on) return go_on;
    const auto child = source_.child(object, entry);
    if (!child)
      keep_worst(worst, child.error());
    else if (!*child)  // removed since
      keep_worst(worst, remove(name));
    else
      keep_worst(worst, fetch(name, **child, included,
                              mine.contains(entry.name) ? Mine::kUnknown : Mine::kAbsent));
  }
  keep_worst(worst, finish(path, object));
  return worst;
}

Result<void> Fetcher::make_directory(const std::string &path, const Source::Object &object) {
  const auto mine = replica_.find(path);
  if (!mine) return mine.error();
  if (*mine) {
    if (const auto room = make_room(path, object, **mine); !room) return room.error();
  }
  if (const auto made = replica_.mkdir(path, 0700); !made) return made.error();
  return finish(path, object);
}

Result<void> Fetcher::link(const std::string &path, const Source::Object &object) {
  auto made = replica_.symlink(object.target, path);
  if (!made && made.error().code == -EEXIST) {  // it leads elsewhere
    if (const auto gone = replica_.remove_tree(path); !gone) return gone.error();
    made = replica_.symlink(object.target, path);
  }
  if (!made) return made.error();
  return finish(path, object);
}

Result<void> Fetcher::special(const std::string &path, const Source::Object &object,
                              const std::optional<struct stat> &mine) {
  const struct stat &theirs = object.status;
  const bool device = S_ISCHR(theirs.st_mode) || S_ISBLK(theirs.st_mode);
  const bool usable = mine && (!device || mine->st_rdev == theirs.st_rdev);
  if (mine && !usable) {
    if (const auto gone = replica_.remove_tree(path); !gone) return gone.error();
  }
  if (!usable) {
    const auto made =
        replica_.make_special(path, (theirs.st_mode & S_IFMT) | 0600, device ? theirs.st_rdev : 0);
    if (!made && device && made.error().code == -EPERM) {
      if (!refused_devices_.insert(path).second) return {};
      return Error{-EPERM, "no permission to make the device node " + printable(path)};
    }
    if (!made) return made.error();
  }
  return finish(path, object);
}

}  // namespace tarn
