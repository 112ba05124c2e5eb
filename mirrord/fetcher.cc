// SPDX-License-Identifier: GPL-2.0
#include "mirrord/fetcher.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <limits>
#include <thread>
#include <vector>

#include "base/text.h"
#include "mirrord/file_status.h"

namespace tarn {
namespace {

constexpr std::uint32_t kSetIds = S_ISUID | S_ISGID;
constexpr std::uint64_t kToTheEnd = std::numeric_limits<std::uint64_t>::max();
constexpr std::size_t kPiece = std::size_t{256} << 10;

/* How long a set-user-id file must not have changed, and how often we wait for that. */
constexpr std::chrono::milliseconds kStableFor{50};
constexpr int kStableTries = 40;

bool is_stable(const struct stat &status) {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return microseconds(status.st_ctim) + std::chrono::microseconds(kStableFor).count() <
         microseconds(now);
}

bool only_zeros(Bytes bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](std::byte b) { return b == std::byte{0}; });
}

Result<struct stat> status_of(const Source::Object &object) {
  struct stat status;
  if (fstat(object.fd.get(), &status) != 0) return system_error(errno, "the source cannot be read");
  return status;
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

Result<void> Fetcher::set_all_attributes(const std::string &path, const struct stat &status) {
  const auto mine = replica_.find(path);
  if (!mine) return mine.error();
  if (!*mine) return system_error(ENOENT, "the copy was removed");
  Replica::Attributes wanted{.atime = status.st_atim, .mtime = status.st_mtim};
  // Only the differences: without privilege, even setting the same owner fails.
  if ((*mine)->st_uid != status.st_uid) wanted.uid = status.st_uid;
  if ((*mine)->st_gid != status.st_gid) wanted.gid = status.st_gid;
  if (!S_ISLNK(status.st_mode)) wanted.mode = status.st_mode & kModeBits;
  return plain(replica_.set_attributes(path, wanted));
}

/* Copies the range; does not write zeros beyond the replica's end. */
Result<void> Fetcher::copy(const std::string &path, const Source::Object &object,
                           std::uint64_t from, std::uint64_t to) {
  const auto mine = replica_.find(path);
  if (!mine) return mine.error();
  const std::uint64_t size_before = *mine ? static_cast<std::uint64_t>((*mine)->st_size) : 0;
  const auto file = Source::open_file(object);
  if (!file) return file.error();
  std::vector<std::byte> piece(
      static_cast<std::size_t>(std::clamp<std::uint64_t>(to > from ? to - from : 0, 1, kPiece)));
  while (from < to) {
    const auto most = static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), to - from));
    const ssize_t got = pread(file->get(), piece.data(), most, static_cast<off_t>(from));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return system_error(errno, "the source's file cannot be read");
    if (got == 0) return {};
    const Bytes data(piece.data(), static_cast<std::size_t>(got));
    // A later write beyond the end leaves a hole here, which reads as zeros.
    if (from < size_before || !only_zeros(data)) {
      if (const auto written = replica_.write(path, from, data); !written) return written.error();
    }
    from += static_cast<std::uint64_t>(got);
  }
  return {};
}

Result<void> Fetcher::fetch_data(const std::string &path, const Source::Object &object,
                                 std::uint64_t from, std::uint64_t to) {
  const auto status = status_of(object);
  if (!status) return status.error();
  const auto size = static_cast<std::uint64_t>(status->st_size);
  if (const auto copied = copy(path, object, from, std::min(to, size)); !copied) return copied;
  const auto mine = replica_.find(path);
  if (!mine) return mine.error();
  const std::uint64_t now = *mine ? static_cast<std::uint64_t>((*mine)->st_size) : 0;
  // Writing has set the times.
  Replica::Attributes wanted{.atime = status->st_atim, .mtime = status->st_mtim};
  if (now > size || (to >= size && now != size)) wanted.size = size;
  return plain(replica_.set_attributes(path, wanted));
}

Result<void> Fetcher::fetch_attributes(const std::string &path, const Source::Object &object) {
  const auto mine = replica_.find(path);
  if (!mine) return mine.error();
  if (!*mine) return system_error(ENOENT, "the copy was removed");
  const struct stat &theirs = object.status;
  const bool owner = (*mine)->st_uid != theirs.st_uid || (*mine)->st_gid != theirs.st_gid;
  const bool mode =
      !S_ISLNK(theirs.st_mode) && (((*mine)->st_mode ^ theirs.st_mode) & kModeBits) != 0;
  if (!owner && !mode) return {};
  // A set-id bit must go together with the data that the source's file has.
  if (has_set_id(theirs)) return file(path, object);
  Replica::Attributes wanted;
  if ((*mine)->st_uid != theirs.st_uid) wanted.uid = theirs.st_uid;
  if ((*mine)->st_gid != theirs.st_gid) wanted.gid = theirs.st_gid;
  if (!S_ISLNK(theirs.st_mode)) wanted.mode = theirs.st_mode & kModeBits;
  return plain(replica_.set_attributes(path, wanted));
}

/* Makes `path` and the other copies of this object one file in the replica. */
Result<bool> Fetcher::link_copies(const std::string &path, const Source::Object &object) {
  bool joined = false;
  for (const std::string &other : origins_.paths_of(object.status)) {
    if (other == path) continue;
    const auto theirs = replica_.find(other);
    if (!theirs || !*theirs || !same_type(**theirs, object.status)) continue;
    const auto there = source_.find(other);
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

/* Removes an object of the replica that cannot become the copy. */
Result<void> Fetcher::make_room(const std::string &path, const Source::Object &object) {
  const auto mine = replica_.find(path);
  if (!mine) return mine.error();
  if (!*mine) return {};
  const bool directory = S_ISDIR(object.status.st_mode);
  const bool usable = same_type(**mine, object.status);
  // Names that the source's object does not have must not get its contents. Its own names are
  // linked to the copy again later.
  const bool shared = !directory && (*mine)->st_nlink > 1 && !origins_.same(path, object.status);
  if (usable && !shared) return {};
  origins_.removed(path);
  return plain(replica_.remove_tree(path));
}

Result<void> Fetcher::fetch(const std::string &path, const Source::Object &object,
                            const Included &included) {
  const bool directory_there = S_ISDIR(object.status.st_mode);
  if (!directory_there && object.status.st_nlink > 1) {
    multiply_linked_[{object.status.st_dev, object.status.st_ino}] = object.status;
    if (const auto joined = link_copies(path, object); !joined) return joined.error();
  }
  if (const auto room = make_room(path, object); !room) return room;
  switch (object.status.st_mode & S_IFMT) {
    case S_IFDIR:
      return directory(path, object, included);
    case S_IFREG:
      return unchanged(path, object.status) ? fetch_attributes(path, object) : file(path, object);
    case S_IFLNK:
      return link(path, object);
  }
  return special(path, object);
}

bool Fetcher::unchanged(const std::string &path, const struct stat &status) {
  const auto mine = replica_.find(path);
  return mine && *mine && origins_.unchanged(path, status);
}

void Fetcher::note_copy(const std::string &path, const struct stat &status, bool whole) {
  origins_.put(path, object_of(replica_, path), status, whole);
}

Result<void> Fetcher::file(const std::string &path, const Source::Object &object) {
  auto mine = replica_.find(path);
  if (!mine) return mine.error();
  if (!*mine) {
    if (const auto made = replica_.create(path, 0600); !made) return made.error();
  } else if (has_set_id(**mine)) {
    const auto taken = replica_.set_attributes(path, {.mode = (*mine)->st_mode & 01777});
    if (!taken) return taken.error();
  }
  for (int tries = kStableTries;; --tries) {
    auto before = status_of(object);
    if (!before) return before.error();
    const auto copied = fetch_data(path, object, 0, kToTheEnd);
    if (!copied) return copied;
    const auto after = status_of(object);
    if (!after) return after.error();
    const bool same = same_time(before->st_ctim, after->st_ctim);
    if (has_set_id(*before) && (!same || !is_stable(*after))) {
      if (tries > 0) {
        std::this_thread::sleep_for(kStableFor);
        continue;
      }
      before->st_mode &= ~kSetIds;  // it keeps changing: their records cause another fetch
    }
    note_copy(path, *before, same);
    return set_all_attributes(path, *before);
  }
}

Result<void> Fetcher::directory(const std::string &path, const Source::Object &object,
                                const Included &included) {
  const auto theirs = Source::entries(object);
  if (!theirs) return theirs.error();
  if (const auto made = replica_.mkdir(path, 0700); !made) return made.error();
  const auto mine = replica_.names(path);
  if (!mine) return mine.error();
  const std::string below = path.empty() ? "" : path + "/";
  std::set<std::string> wanted;
  for (const DirectoryEntry &entry : *theirs) wanted.insert(entry.name);
  Result<void> first;
  const auto note = [&](const Result<void> &result) {
    if (first.ok() && !result) first = Error{result.error().code, result.error().text};
  };
  for (const std::string &name : *mine) {
    if (wanted.contains(name) || !included(below + name)) continue;
    origins_.removed(below + name);
    note(plain(replica_.remove_tree(below + name)));
  }
  for (const std::string &name : wanted) {
    if (!included(below + name)) continue;
    const auto child = source_.find(below + name);
    if (!child) {
      note(child.error());
    } else if (!*child) {  // removed since
      origins_.removed(below + name);
      note(plain(replica_.remove_tree(below + name)));
    } else {
      note(fetch(below + name, **child, included));
    }
  }
  note_copy(path, object.status, false);
  note(set_all_attributes(path, object.status));
  return first;
}

Result<void> Fetcher::make_directory(const std::string &path, const Source::Object &object) {
  if (const auto room = make_room(path, object); !room) return room;
  if (const auto made = replica_.mkdir(path, 0700); !made) return made.error();
  note_copy(path, object.status, false);
  return set_all_attributes(path, object.status);
}

Result<void> Fetcher::link(const std::string &path, const Source::Object &object) {
  auto made = replica_.symlink(object.target, path);
  if (!made && made.error().code == -EEXIST) {  // it leads elsewhere
    if (const auto gone = replica_.remove_tree(path); !gone) return gone.error();
    made = replica_.symlink(object.target, path);
  }
  if (!made) return made.error();
  note_copy(path, object.status, false);
  return set_all_attributes(path, object.status);
}

Result<void> Fetcher::special(const std::string &path, const Source::Object &object) {
  const struct stat &theirs = object.status;
  const auto mine = replica_.find(path);
  if (!mine) return mine.error();
  const bool device = S_ISCHR(theirs.st_mode) || S_ISBLK(theirs.st_mode);
  if (*mine && device && (*mine)->st_rdev != theirs.st_rdev) {
    if (const auto gone = replica_.remove_tree(path); !gone) return gone.error();
  }
  if (!*mine || (device && (*mine)->st_rdev != theirs.st_rdev)) {
    const auto made =
        replica_.make_special(path, (theirs.st_mode & S_IFMT) | 0600, device ? theirs.st_rdev : 0);
    if (!made && device && made.error().code == -EPERM) {
      if (!refused_devices_.insert(path).second) return {};
      return Error{-EPERM, "no permission to make the device node " + printable(path)};
    }
    if (!made) return made.error();
  }
  note_copy(path, theirs, false);
  return set_all_attributes(path, theirs);
}

}  // namespace tarn
