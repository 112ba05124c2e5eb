// SPDX-License-Identifier: GPL-2.0
#include "mirrord/verify/entry_differences.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <utility>

#include <fmt/format.h>

#include "base/text.h"
#include "mirrord/file_status.h"

namespace tarn {
namespace {

const char *type_name(std::uint32_t mode) {
  switch (mode & S_IFMT) {
    case S_IFREG:
      return "file";
    case S_IFDIR:
      return "directory";
    case S_IFLNK:
      return "symbolic link";
    case S_IFCHR:
      return "character device";
    case S_IFBLK:
      return "block device";
    case S_IFIFO:
      return "FIFO";
    default:
      return "socket";
  }
}

std::string time_text(const timespec &time) {
  return fmt::format("{} ({}.{:09})", utc_time(microseconds(time)), time.tv_sec, time.tv_nsec);
}

std::string device_text(std::uint64_t device) {
  return fmt::format("{}:{}", major(device), minor(device));
}

std::string both(const std::string &source, const std::string &target) {
  return fmt::format("source {}, target {}", source, target);
}

/* Collects differences of one path. */
struct Collector {
  const std::string &path;
  std::vector<Difference> found;

  void add(const char *kind, std::string detail) {
    found.push_back({path, kind, std::move(detail)});
  }

  void unreadable(const char *side, const TreeEntry &entry) {
    if (entry.error != 0)
      add("unreadable", fmt::format("{}: {}", side, plain_error(entry.error).text));
  }

  void attributes(const TreeEntry &s, const TreeEntry &t) {
    const std::uint32_t source_mode = s.mode & kModeBits, target_mode = t.mode & kModeBits;
    if (source_mode != target_mode && !S_ISLNK(s.mode) && !is_closed_root(path, t))
      add("mode", both(fmt::format("{:04o}", source_mode), fmt::format("{:04o}", target_mode)));
    if (s.uid != t.uid || s.gid != t.gid)
      add("owner", both(fmt::format("{}:{}", s.uid, s.gid), fmt::format("{}:{}", t.uid, t.gid)));
    if (!same_time(s.modified, t.modified))
      add("mtime", both(time_text(s.modified), time_text(t.modified)));
    if (s.attributes != t.attributes && s.error == 0 && t.error == 0)
      add("xattr", "extended attributes or access lists differ");
  }
};

}  // namespace

bool same_type(const TreeEntry &a, const TreeEntry &b) {
  return (a.mode & S_IFMT) == (b.mode & S_IFMT);
}

bool is_closed_root(const std::string &path, const TreeEntry &target) {
  return path.empty() && (target.mode & kModeBits) == 0700;
}

std::vector<Difference> entry_differences(const std::string &path,
                                          const std::optional<TreeEntry> &source,
                                          const std::optional<TreeEntry> &target) {
  Collector differences{path, {}};
  if (source && !target) differences.add("missing", type_name(source->mode));
  if (!source && target) differences.add("extra", type_name(target->mode));
  if (!source || !target) return std::move(differences.found);
  if (!same_type(*source, *target)) {
    differences.add("type", both(type_name(source->mode), type_name(target->mode)));
    return std::move(differences.found);
  }
  if (source->size != target->size)
    differences.add("size", both(std::to_string(source->size), std::to_string(target->size)));
  if (source->device != target->device)
    differences.add("device", both(device_text(source->device), device_text(target->device)));
  if (source->text != target->text && source->error == 0 && target->error == 0)
    differences.add("symlink", "the links' texts differ");
  differences.unreadable("source", *source);
  differences.unreadable("target", *target);
  differences.attributes(*source, *target);
  return std::move(differences.found);
}

}  // namespace tarn
