// SPDX-License-Identifier: GPL-2.0
#include "mirrord/overlap.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <optional>

#include <fmt/format.h>

#include "base/text.h"
#include "client/paths.h"

namespace tarn {
namespace {

/* The relation of the second path to the first. */
enum class Overlap { kNone, kSame, kWithin, kContains };

std::string join(const std::string &directory, const std::string &below) {
  if (below.empty()) return directory;
  return (directory == "/" ? "" : directory) + "/" + below;
}

Overlap overlap_of_names(const std::string &first, const std::string &second) {
  if (first == second) return Overlap::kSame;
  if (path_below(first, second)) return Overlap::kWithin;
  return path_below(second, first) ? Overlap::kContains : Overlap::kNone;
}

struct Identity {
  dev_t device;
  ino_t inode;
  bool operator==(const Identity &) const = default;
};

std::optional<Identity> identity_of(const std::string &path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) return std::nullopt;
  return Identity{status.st_dev, status.st_ino};
}

/* Is a directory above `path` the same as `directory`, whatever its name? */
bool is_below(const std::string &path, const Identity &directory) {
  for (std::size_t end = path.rfind('/'); path != "/" && end != std::string::npos;
       end = end == 0 ? std::string::npos : path.rfind('/', end - 1)) {
    if (identity_of(end == 0 ? "/" : path.substr(0, end)) == directory) return true;
  }
  return false;
}

Overlap overlap_of_inodes(const std::string &first, const std::string &second) {
  const auto first_id = identity_of(first), second_id = identity_of(second);
  if (first_id && first_id == second_id) return Overlap::kSame;
  if (first_id && is_below(second, *first_id)) return Overlap::kWithin;
  return second_id && is_below(first, *second_id) ? Overlap::kContains : Overlap::kNone;
}

/* The mount that a path lies on: the innermost, and the last of those on the same mount point. */
const MountEntry *mount_of(const std::vector<MountEntry> &table, const std::string &path) {
  const MountEntry *found = nullptr;
  for (const MountEntry &entry : table) {
    if (path_below(entry.mountpoint, path) &&
        (!found || entry.mountpoint.size() >= found->mountpoint.size()))
      found = &entry;
  }
  return found;
}

/* A directory's place in its file system, independent of the mount. */
struct Location {
  std::string device;
  std::string path;
};

std::string path_in_lower(const MountEntry &mount) {
  return join(mount.lower, mount.root == "/" ? "" : mount.root.substr(1));
}

std::optional<Location> location_of(const std::vector<MountEntry> &table, const std::string &path) {
  const MountEntry *mount = mount_of(table, path);
  if (!mount || mount->device.empty()) return std::nullopt;
  return Location{mount->device, join(mount->root, *path_below(mount->mountpoint, path))};
}

Overlap overlap_of_locations(const std::optional<Location> &first,
                             const std::optional<Location> &second) {
  if (!first || !second || first->device != second->device) return Overlap::kNone;
  return overlap_of_names(first->path, second->path);
}

/* The path; if it lies on a mount of tarn, the lower path as well, and so on down the stack. */
std::vector<std::string> seen_through_mounts(const std::vector<MountEntry> &table,
                                             std::string path) {
  std::vector<std::string> paths;
  while (std::find(paths.begin(), paths.end(), path) == paths.end()) {
    paths.push_back(path);
    const MountEntry *mount = mount_of(table, path);
    if (!mount || mount->lower.empty()) break;
    path = join(path_in_lower(*mount), *path_below(mount->mountpoint, path));
  }
  return paths;
}

Overlap overlap_of(const std::vector<MountEntry> &table, const std::string &first,
                   const std::string &second) {
  for (const Overlap overlap :
       {overlap_of_names(first, second), overlap_of_inodes(first, second),
        overlap_of_locations(location_of(table, first), location_of(table, second))}) {
    if (overlap != Overlap::kNone) return overlap;
  }
  return Overlap::kNone;
}

/* The first overlap of any of their lower paths. */
Overlap overlap_through_mounts(const std::vector<MountEntry> &table, const std::string &first,
                               const std::string &second) {
  for (const std::string &one : seen_through_mounts(table, first)) {
    for (const std::string &other : seen_through_mounts(table, second)) {
      if (const auto overlap = overlap_of(table, one, other); overlap != Overlap::kNone)
        return overlap;
    }
  }
  return Overlap::kNone;
}

/* A mount below `directory` that overlaps with `path`. */
const MountEntry *shown_below(const std::vector<MountEntry> &table, const std::string &directory,
                              const std::string &path) {
  for (const MountEntry &mount : table) {
    const auto below = path_below(directory, mount.mountpoint);
    if (!below || below->empty() || mount_of(table, mount.mountpoint) != &mount) continue;
    if (overlap_through_mounts(table, mount.mountpoint, path) != Overlap::kNone) return &mount;
  }
  return nullptr;
}

Error refused(const std::string &how) {
  return {-EINVAL, how + ": it would be replicated into itself: choose another directory"};
}

}  // namespace

std::vector<MountEntry> mount_table_or(const std::vector<Mount> &mounts) {
  std::vector<MountEntry> table = mount_table();
  if (!table.empty()) return table;
  for (const Mount &mount : mounts) table.push_back({"", "/", mount.mountpoint, mount.lower});
  return table;
}

std::optional<std::string> overlap_text(const NamedDirectory &first, const NamedDirectory &second,
                                        const std::vector<MountEntry> &table) {
  const auto text = [&](const char *how) {
    return fmt::format("{} {} {} {} {}", second.name, printable(second.path), how, first.name,
                       printable(first.path));
  };
  switch (overlap_through_mounts(table, first.path, second.path)) {
    case Overlap::kSame:
      return text("is");
    case Overlap::kWithin:
      return text("lies inside");
    case Overlap::kContains:
      return text("contains");
    case Overlap::kNone:
      break;
  }
  return std::nullopt;
}

std::optional<std::string> shown_text(const NamedDirectory &outer, const NamedDirectory &inner,
                                      const std::vector<MountEntry> &table) {
  const MountEntry *mount = shown_below(table, outer.path, inner.path);
  if (!mount) return std::nullopt;
  return fmt::format("{} {} contains {}, a mount that shows {} {}", outer.name,
                     printable(outer.path), printable(mount->mountpoint), inner.name,
                     printable(inner.path));
}

Result<void> check_overlap(const std::string &source, const std::string &replica,
                           const std::vector<MountEntry> &table, const std::string &noun) {
  const NamedDirectory first{"the source", source}, second{"the " + noun, replica};
  if (const auto text = overlap_text(first, second, table)) return refused(*text);
  if (const auto text = shown_text(second, first, table)) return refused(*text);
  // A mount of tarn below the source is skipped: its lower directory has records of its own.
  for (const MountEntry &mount : table) {
    const auto below = path_below(source, mount.mountpoint);
    if (!below || below->empty() || !mount.lower.empty()) continue;
    if (mount_of(table, mount.mountpoint) != &mount) continue;
    const auto overlap = overlap_through_mounts(table, mount.mountpoint, replica);
    if (overlap == Overlap::kSame || overlap == Overlap::kWithin)
      return refused(fmt::format("the {} {} is shown inside the source {} by the mount {}", noun,
                                 printable(replica), printable(source),
                                 printable(mount.mountpoint)));
  }
  return {};
}

}  // namespace tarn
