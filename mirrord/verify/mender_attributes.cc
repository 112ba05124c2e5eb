// SPDX-License-Identifier: GPL-2.0
// Attributes in an order in which none undoes another and no privilege is given too early.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <cerrno>

#include <fmt/format.h>

#include "mirrord/file_status.h"
#include "mirrord/verify/entry_differences.h"
#include "mirrord/verify/mender.h"
#include "mirrord/xattrs.h"

namespace tarn {
namespace {

constexpr std::uint32_t kSetId = S_ISUID | S_ISGID;

/* Reaches the descriptor's object, a symbolic link too: what /proc links to is not followed. */
std::string by_descriptor(const UniqueFd &object) {
  return fmt::format("/proc/self/fd/{}", object.get());
}

Result<void> set_attribute(const std::string &object, const std::string &name,
                           const std::string &value) {
  if (setxattr(object.c_str(), name.c_str(), value.data(), value.size(), 0) == 0) return {};
  Error error = plain_error(errno);
  error.text = fmt::format("the extended attribute {} cannot be set: {}", name, error.text);
  return error;
}

/* All but the capability, which is only removed if the source has another one. */
Result<void> copy_extended(const std::string &object, const Attributes &wanted,
                           const Attributes &present) {
  for (const auto &[name, value] : present) {
    const auto at = wanted.find(name);
    const bool stays = at != wanted.end() && (name != kCapability || at->second == value);
    if (!stays && removexattr(object.c_str(), name.c_str()) != 0 && errno != ENODATA)
      return plain_error(errno);
  }
  for (const auto &[name, value] : wanted) {
    const auto at = present.find(name);
    if (name == kCapability || (at != present.end() && at->second == value)) continue;
    auto set = set_attribute(object, name, value);
    if (!set) return set;
  }
  return {};
}

/* Set-user-id bits only if they are `trusted` to cover the bytes that they cover at the source. */
Result<void> copy_mode(const UniqueFd &object, const std::string &path, const TreeEntry &source,
                       bool trusted) {
  struct stat mine;
  if (fstat(object.get(), &mine) != 0) return plain_error(errno);
  TreeEntry now{};
  now.mode = mine.st_mode;
  std::uint32_t mode = source.mode & kModeBits;
  if (S_ISREG(source.mode) && !trusted) mode &= ~kSetId;
  if (S_ISLNK(source.mode) || is_closed_root(path, now) || (mine.st_mode & kModeBits) == mode)
    return {};
  if (chmod(by_descriptor(object).c_str(), mode) != 0) return plain_error(errno);
  return {};
}

}  // namespace

Result<void> Mender::copy_attributes(const Place &place, const std::string &path,
                                     const TreeEntry &source) {
  const auto wanted = source_.attributes(path);
  if (!wanted) return wanted.error();
  const UniqueFd opened(
      openat(place.directory.get(), place.name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat mine;
  if (!opened || fstat(opened.get(), &mine) != 0) return plain_error(errno);
  // It became something else meanwhile: looked at again by the caller.
  if ((mine.st_mode & S_IFMT) != (source.mode & S_IFMT)) return {};
  Result<void> first;  // the rest is set all the same
  const auto note = [&](Result<void> result) {
    if (first && !result) first = std::move(result);
  };
  if ((mine.st_uid != source.uid || mine.st_gid != source.gid) &&
      fchownat(opened.get(), "", source.uid, source.gid, AT_EMPTY_PATH) != 0)
    note(plain_error(errno));
  const bool trusted = first && is_unchanged(path, source);
  // A change of owner takes the capability away, and an access list changes the mode.
  const std::string object = by_descriptor(opened);
  auto present = read_attributes(place);
  if (!present) return present.error();
  note(copy_extended(object, *wanted, *present));
  note(copy_mode(opened, path, source, trusted));
  const auto capability = wanted->find(kCapability);
  if (capability != wanted->end() && trusted && (*present)[kCapability] != capability->second)
    note(set_attribute(object, kCapability, capability->second));
  const timespec times[2] = {{0, UTIME_OMIT}, source.modified};
  if (!same_time(mine.st_mtim, source.modified) &&
      utimensat(AT_FDCWD, object.c_str(), times, 0) != 0)
    note(plain_error(errno));
  return first;
}

/* An error shows as a difference of the directory. */
void Mender::restore_time(const std::string &directory) {
  const auto source = source_.find(directory);
  const auto target = target_.find(directory);
  if (!source || !*source || !target || !*target || !S_ISDIR((*source)->mode) ||
      !S_ISDIR((*target)->mode) || same_time((*source)->modified, (*target)->modified))
    return;
  const auto opened = open_directory(target_.root(), directory);
  if (!opened) return;
  const timespec times[2] = {{0, UTIME_OMIT}, (*source)->modified};
  if (utimensat(AT_FDCWD, by_descriptor(*opened).c_str(), times, 0) != 0)
    fail(directory, plain_error(errno));
}

}  // namespace tarn
