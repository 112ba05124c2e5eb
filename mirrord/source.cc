// SPDX-License-Identifier: GPL-2.0
#include "mirrord/source.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include <fmt/format.h>

namespace tarn {
namespace {

Error failed(int err, const char *what) {
  return system_error(err, what);
}

/* These errors mean that the path does not exist. */
bool is_absence(int err) {
  return err == ENOENT || err == ENOTDIR || err == ELOOP;
}

/* Opens anew what an O_PATH descriptor is of. */
UniqueFd reopen(int object, int flags) {
  const std::string path = fmt::format("/proc/self/fd/{}", object);
  UniqueFd fd(open(path.c_str(), flags | O_NOATIME | O_NONBLOCK | O_CLOEXEC));
  if (!fd && errno == EPERM)  // not our own file
    fd = UniqueFd(open(path.c_str(), flags | O_NONBLOCK | O_CLOEXEC));
  return fd;
}

}  // namespace

bool Source::available() {
  if (!root_)
    root_ = UniqueFd(open(directory_.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  return static_cast<bool>(root_);
}

Result<std::optional<Source::Object>> Source::find(const std::string &path) {
  if (!available()) return failed(errno, "the source cannot be looked at");
  const std::size_t slash = path.rfind('/');
  const std::string parent = slash == std::string::npos ? "" : path.substr(0, slash);
  const std::string name = path.empty() ? "." : path.substr(parent.empty() ? 0 : slash + 1);
  const auto directory = open_directory_below(root_.get(), parent);
  if (!directory) {
    if (is_absence(-directory.error().code)) return std::optional<Object>();
    return failed(-directory.error().code, "the source cannot be looked at");
  }
  Object found{UniqueFd(openat(directory->get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC)),
               {}};
  if (!found.fd && is_absence(errno)) return std::optional<Object>();
  if (!found.fd || fstat(found.fd.get(), &found.status) != 0)
    return failed(errno, "the source cannot be looked at");
  return std::optional<Object>(std::move(found));
}

Result<UniqueFd> Source::open_file(const Object &file) {
  UniqueFd fd = reopen(file.fd.get(), O_RDONLY);
  if (!fd) return failed(errno, "the source's file cannot be read");
  return fd;
}

Result<std::string> Source::target(const Object &link) {
  std::string text(PATH_MAX, '\0');
  const ssize_t length = readlinkat(link.fd.get(), "", text.data(), text.size());
  if (length < 0) return failed(errno, "the source's symbolic link cannot be read");
  text.resize(static_cast<std::size_t>(length));
  return text;
}

Result<std::vector<DirectoryEntry>> Source::entries(const Object &directory) {
  UniqueFd fd = reopen(directory.fd.get(), O_RDONLY | O_DIRECTORY);
  if (!fd) return failed(errno, "the source's directory cannot be read");
  return directory_entries(std::move(fd));
}

}  // namespace tarn
