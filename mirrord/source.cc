// SPDX-License-Identifier: GPL-2.0
#include "mirrord/source.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include <fmt/format.h>

#include "mirrord/file_status.h"

namespace tarn {
namespace {

Error failed(int err, const char *what) {
  return system_error(err, what);
}

/* These errors mean that the path does not exist. */
bool is_absence(int err) {
  return err == ENOENT || err == ENOTDIR || err == ELOOP;
}

/* Opens the descriptor's object again with other flags. */
UniqueFd reopen(int object, int flags) {
  const std::string path = fmt::format("/proc/self/fd/{}", object);
  UniqueFd fd(open(path.c_str(), flags | O_NOATIME | O_NONBLOCK | O_CLOEXEC));
  if (!fd && errno == EPERM)  // O_NOATIME needs ownership
    fd = UniqueFd(open(path.c_str(), flags | O_NONBLOCK | O_CLOEXEC));
  return fd;
}

/* The target of the symbolic link `name` in `directory`; of `directory` itself if `name` is "". */
Result<std::string> read_link(int directory, const std::string &name) {
  std::string text(PATH_MAX, '\0');
  const ssize_t length = readlinkat(directory, name.c_str(), text.data(), text.size());
  if (length < 0) return failed(errno, "the source's symbolic link cannot be read");
  text.resize(static_cast<std::size_t>(length));
  return text;
}

using Found = Result<std::optional<Source::Object>>;

Found not_found(int err) {
  if (is_absence(err)) return std::optional<Source::Object>();
  return failed(err, "the source cannot be read");
}

Found find_by_descriptor(int directory, const std::string &name) {
  Source::Object found{
      UniqueFd(openat(directory, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC)), {}, {}, false};
  if (!found.fd || fstat(found.fd.get(), &found.status) != 0) return not_found(errno);
  if (S_ISLNK(found.status.st_mode)) {
    auto target = read_link(found.fd.get(), "");
    if (!target) return target.error();
    found.target = std::move(*target);
  }
  return std::optional<Source::Object>(std::move(found));
}

/* Opening a FIFO or a device has side effects, so the status is read first. If the name gets
 * another object in between, starts again. */
Found find_by_status(int directory, const std::string &name) {
  constexpr int kPlain = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  for (;;) {
    Source::Object found{};
    if (fstatat(directory, name.c_str(), &found.status, AT_SYMLINK_NOFOLLOW) != 0)
      return not_found(errno);
    struct stat after = found.status;
    const auto unchanged = [&] {
      return same_object(found.status, after) && found.status.st_mode == after.st_mode;
    };
    if (S_ISREG(found.status.st_mode) || S_ISDIR(found.status.st_mode)) {
      found.fd = UniqueFd(openat(directory, name.c_str(), kPlain));
      if (found.fd ? fstat(found.fd.get(), &after) != 0 : !is_absence(errno))
        return not_found(errno);
      if (!found.fd) continue;
    } else if (S_ISLNK(found.status.st_mode)) {
      auto target = read_link(directory, name);
      if (fstatat(directory, name.c_str(), &after, AT_SYMLINK_NOFOLLOW) != 0)
        return not_found(errno);
      if (!target && unchanged()) return target.error();
      if (target) found.target = std::move(*target);
    }
    if (unchanged()) return std::optional<Source::Object>(std::move(found));
  }
}

}  // namespace

bool Source::available() {
  if (!root_)
    root_ = UniqueFd(open(directory_.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  return static_cast<bool>(root_);
}

Result<std::optional<Source::Object>> Source::find(const std::string &path) {
  if (!available()) return failed(errno, "the source cannot be read");
  const std::size_t slash = path.rfind('/');
  const std::string parent = slash == std::string::npos ? "" : path.substr(0, slash);
  const std::string name = path.empty() ? "." : path.substr(parent.empty() ? 0 : slash + 1);
  const auto directory = open_directory_below(root_.get(), parent);
  if (!directory) return not_found(-directory.error().code);
  return path_descriptors_ ? find_by_descriptor(directory->get(), name)
                           : find_by_status(directory->get(), name);
}

Result<std::optional<Source::Object>> Source::child(const Object &directory,
                                                    const DirectoryEntry &entry) const {
  const int above = directory.fd.get();
  if (entry.regular_file) {
    // If another object has taken the name, O_NONBLOCK keeps a FIFO or device from blocking us.
    constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    UniqueFd fd(openat(above, entry.name.c_str(), kFlags | O_NOATIME));
    if (!fd && errno == EPERM) fd = UniqueFd(openat(above, entry.name.c_str(), kFlags));
    Object found{std::move(fd), {}, {}, true};
    if (found.fd && fstat(found.fd.get(), &found.status) == 0 && S_ISREG(found.status.st_mode))
      return std::optional<Object>(std::move(found));
  }
  return path_descriptors_ ? find_by_descriptor(above, entry.name)
                           : find_by_status(above, entry.name);
}

std::optional<XattrPlace> Source::xattr_place(const Object &object) {
  if (object.readable) return XattrPlace{.fd = object.fd.get()};
  if (!object.fd) return std::nullopt;
  return XattrPlace{.path = fmt::format("/proc/self/fd/{}", object.fd.get()), .follow_link = true};
}

Result<UniqueFd> Source::open_file(const Object &file) {
  UniqueFd fd = reopen(file.fd.get(), O_RDONLY);
  if (!fd) return failed(errno, "the source's file cannot be read");
  return fd;
}

Result<std::vector<DirectoryEntry>> Source::entries(const Object &directory) {
  UniqueFd fd = reopen(directory.fd.get(), O_RDONLY | O_DIRECTORY);
  if (!fd) return failed(errno, "the source's directory cannot be read");
  return directory_entries(std::move(fd));
}

}  // namespace tarn
