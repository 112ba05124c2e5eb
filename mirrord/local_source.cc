// SPDX-License-Identifier: GPL-2.0
#include "mirrord/local_source.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
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
      .status = {},
      .target = {},
      .fd = UniqueFd(openat(directory, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC))};
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

/* The attributes to copy. */
Result<Xattrs> xattrs_at(const XattrPlace &place) {
  auto found = read_xattrs(place);
  if (!found) return Error{found.error().code, "of the source: " + found.error().text};
  return found;
}

/* Fewer blocks than its size needs: it may have holes, or be compressed. */
bool may_have_holes(const struct stat &status) {
  constexpr off_t kBlock = 512; /* of st_blocks */
  return off_t{status.st_blocks} * kBlock < status.st_size;
}

class LocalFile final : public SourceFile {
 public:
  /* `owned` is the same descriptor, or none. */
  LocalFile(int fd, UniqueFd owned) : owned_(std::move(owned)), fd_(fd) {}

  Result<struct stat> begin(std::uint64_t, std::uint64_t) override {
    const auto status = end();
    if (status) may_have_holes_ = may_have_holes(*status);
    return status;
  }
  Result<struct stat> end() override {
    struct stat status;
    if (fstat(fd_, &status) != 0) return failed(errno, "the source cannot be read");
    return status;
  }

  Result<Extent> data_from(std::uint64_t at, std::uint64_t to) override {
    if (!may_have_holes_) return Extent{at, to};
    const off_t data = lseek(fd_, static_cast<off_t>(at), SEEK_DATA);
    if (data < 0 && errno == ENXIO) return Extent{to, to};
    may_have_holes_ = data >= 0;  // else the file system does not tell
    if (!may_have_holes_) return Extent{at, to};
    const std::uint64_t begin = std::min(static_cast<std::uint64_t>(data), to);
    const off_t hole = begin < to ? lseek(fd_, data, SEEK_HOLE) : off_t{-1};
    return Extent{begin, hole < 0 ? to : std::min(static_cast<std::uint64_t>(hole), to)};
  }

  Result<std::size_t> read(std::uint64_t at, std::span<std::byte> to) override {
    std::size_t done = 0;
    while (done < to.size()) {
      const ssize_t got =
          pread(fd_, to.data() + done, to.size() - done, static_cast<off_t>(at + done));
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) return failed(errno, "the source's file cannot be read");
      if (got == 0) break;
      done += static_cast<std::size_t>(got);
    }
    return done;
  }

  Result<Xattrs> xattrs() override { return xattrs_at(XattrPlace{.fd = fd_}); }

 private:
  UniqueFd owned_;
  int fd_;
  bool may_have_holes_ = true;
};

}  // namespace

std::unique_ptr<SourceFile> read_local_file(UniqueFd file) {
  const int raw = file.get();
  return std::make_unique<LocalFile>(raw, std::move(file));
}

bool LocalSource::available() {
  if (!root_)
    root_ = UniqueFd(::open(directory_.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  return static_cast<bool>(root_);
}

Result<std::optional<Source::Object>> LocalSource::find(const std::string &path) {
  if (!available()) return failed(errno, "the source cannot be read");
  const std::size_t slash = path.rfind('/');
  const std::string parent = slash == std::string::npos ? "" : path.substr(0, slash);
  const std::string name = path.empty() ? "." : path.substr(parent.empty() ? 0 : slash + 1);
  const auto directory = open_directory_below(root_.get(), parent);
  if (!directory) return not_found(-directory.error().code);
  return path_descriptors_ ? find_by_descriptor(directory->get(), name)
                           : find_by_status(directory->get(), name);
}

Result<std::optional<Source::Object>> LocalSource::child(const Object &directory,
                                                         const DirectoryEntry &entry) {
  const int above = directory.fd.get();
  if (entry.regular_file) {
    // If another object has taken the name, O_NONBLOCK keeps a FIFO or device from blocking us.
    constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    UniqueFd fd(openat(above, entry.name.c_str(), kFlags | O_NOATIME));
    if (!fd && errno == EPERM) fd = UniqueFd(openat(above, entry.name.c_str(), kFlags));
    Object found{.status = {}, .target = {}, .fd = std::move(fd), .readable = true};
    if (found.fd && fstat(found.fd.get(), &found.status) == 0 && S_ISREG(found.status.st_mode))
      return std::optional<Object>(std::move(found));
  }
  return path_descriptors_ ? find_by_descriptor(above, entry.name)
                           : find_by_status(above, entry.name);
}

Result<std::vector<DirectoryEntry>> LocalSource::entries(const Object &directory) {
  UniqueFd fd = reopen(directory.fd.get(), O_RDONLY | O_DIRECTORY);
  if (!fd) return failed(errno, "the source's directory cannot be read");
  return directory_entries(std::move(fd));
}

/* To look is cheap here. */
void LocalSource::expect(const std::vector<std::string> &) {}

Result<std::unique_ptr<SourceFile>> LocalSource::open(const Object &file) {
  if (file.readable)
    return std::unique_ptr<SourceFile>(std::make_unique<LocalFile>(file.fd.get(), UniqueFd()));
  UniqueFd fd = reopen(file.fd.get(), O_RDONLY);
  if (!fd) return failed(errno, "the source's file cannot be read");
  return read_local_file(std::move(fd));
}

Result<std::optional<Xattrs>> LocalSource::xattrs(const Object &object) {
  if (!object.fd) return std::optional<Xattrs>();
  auto found = xattrs_at(object.readable
                             ? XattrPlace{.fd = object.fd.get()}
                             : XattrPlace{.path = fmt::format("/proc/self/fd/{}", object.fd.get()),
                                          .follow_link = true});
  if (!found) return found.error();
  return std::optional<Xattrs>(std::move(*found));
}

bool LocalSource::has_name(const struct stat &object, const std::string &path) {
  struct stat other;
  return lstat(path.c_str(), &other) == 0 && same_object(other, object);
}

Result<std::int64_t> LocalSource::now() {
  return now_us();
}

}  // namespace tarn
