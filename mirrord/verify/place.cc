// SPDX-License-Identifier: GPL-2.0
#include "mirrord/verify/place.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <cerrno>
#include <climits>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "mirrord/directory_walk.h"

namespace tarn {
namespace {

/* The longest part of a path that is opened in one call: a path of PATH_MAX bytes with its NUL. */
constexpr std::size_t kLongestPart = PATH_MAX - 1;

constexpr std::string_view kAccessList = "system.posix_acl_access";
constexpr std::string_view kDefaultAccessList = "system.posix_acl_default";
constexpr std::string_view kCapability = "security.capability";

/* Calls `read(buffer, size)` with a buffer that is large enough. The size may grow in between. */
template <class Read>
Result<std::string> read_whole(Read read) {
  for (;;) {
    const ssize_t size = read(nullptr, std::size_t{0});
    if (size < 0) return plain_error(errno);
    std::string text(static_cast<std::size_t>(size), '\0');
    if (size == 0) return text;
    const ssize_t length = read(text.data(), text.size());
    if (length < 0 && errno == ERANGE) continue;
    if (length < 0) return plain_error(errno);
    text.resize(static_cast<std::size_t>(length));
    return text;
  }
}

}  // namespace

Error plain_error(int err) {
  Error error = system_error(err, "");
  error.text.erase(0, 2);
  return error;
}

bool means_absent(int err) {
  return err == ENOENT || err == ENOTDIR || err == ELOOP || err == ESTALE;
}

std::string join(const std::string &directory, const std::string &name) {
  return directory.empty() ? name : directory + "/" + name;
}

std::string parent_of(const std::string &path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash);
}

Result<UniqueFd> open_directory(int root, const std::string &path) {
  UniqueFd here;
  std::size_t from = 0;
  while (path.size() - from > kLongestPart) {
    const std::size_t slash = path.rfind('/', from + kLongestPart);
    if (slash == std::string::npos || slash <= from) return plain_error(ENAMETOOLONG);
    auto next = open_directory_below(here ? here.get() : root, path.substr(from, slash - from));
    if (!next) return plain_error(-next.error().code);
    here = std::move(*next);
    from = slash + 1;
  }
  auto last = open_directory_below(here ? here.get() : root, path.substr(from));
  if (!last) return plain_error(-last.error().code);
  return std::move(*last);
}

std::string Place::through_proc() const {
  return fmt::format("/proc/self/fd/{}/{}", directory.get(), name);
}

Result<Place> place_below(int root, const std::string &path) {
  auto directory = open_directory(root, parent_of(path));
  if (!directory) return directory.error();
  const std::size_t slash = path.rfind('/');
  std::string name = path.empty() ? "." : path.substr(slash == path.npos ? 0 : slash + 1);
  if (name.empty() || name == ".." || (name == "." && !path.empty())) return plain_error(EXDEV);
  return Place{std::move(*directory), std::move(name)};
}

Result<UniqueFd> open_object(const Place &place, int flags) {
  const UniqueFd object(
      openat(place.directory.get(), place.name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat status;
  if (!object || fstat(object.get(), &status) != 0) return plain_error(errno);
  if ((flags & O_DIRECTORY) ? !S_ISDIR(status.st_mode) : !S_ISREG(status.st_mode))
    return plain_error(ELOOP);
  const std::string path = fmt::format("/proc/self/fd/{}", object.get());
  UniqueFd fd(open(path.c_str(), flags | O_NOATIME | O_NONBLOCK | O_CLOEXEC));
  if (!fd && errno == EPERM)  // O_NOATIME needs ownership
    fd = UniqueFd(open(path.c_str(), flags | O_NONBLOCK | O_CLOEXEC));
  if (!fd) return plain_error(errno);
  return fd;
}

bool is_compared_attribute(std::string_view name) {
  return name.starts_with("user.") || name.starts_with("trusted.") || name == kAccessList ||
         name == kDefaultAccessList || name == kCapability;
}

Result<Attributes> read_attributes(const Place &place) {
  const std::string path = place.through_proc();
  const auto names = read_whole(
      [&](char *buffer, std::size_t size) { return llistxattr(path.c_str(), buffer, size); });
  Attributes attributes;
  if (!names && names.error().code == -EOPNOTSUPP) return attributes;
  if (!names) return names.error();
  for (std::size_t at = 0; at < names->size();) {
    const std::string name(names->c_str() + at);
    at += name.size() + 1;
    if (!is_compared_attribute(name)) continue;
    auto value = read_whole([&](char *buffer, std::size_t size) {
      return lgetxattr(path.c_str(), name.c_str(), buffer, size);
    });
    if (!value && value.error().code == -ENODATA) continue;  // removed since
    if (!value) return value.error();
    attributes.emplace(name, std::move(*value));
  }
  return attributes;
}

Result<std::string> read_link_text(const Place &place) {
  std::string text(PATH_MAX, '\0');
  const ssize_t length =
      readlinkat(place.directory.get(), place.name.c_str(), text.data(), text.size());
  if (length < 0) return plain_error(errno);
  text.resize(static_cast<std::size_t>(length));
  return text;
}

}  // namespace tarn
