// SPDX-License-Identifier: GPL-2.0
#include "mirrord/replica.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

#include <fmt/format.h>

#include "base/text.h"
#include "mirrord/directory_walk.h"
#include "mirrord/file_status.h"

namespace tarn {
namespace {

constexpr std::uint32_t kForOthers = 0077;

/* Flags to open an object without access to its data. Kernels without O_PATH open it for reading;
 * there only regular files and directories are opened. */
constexpr int kObjectFlags = O_PATH | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

// The caller's message names the record, so the error text is only the cause.
Error failed(int err) {
  Error error = system_error(err, "");
  error.text.erase(0, 2);
  return error;
}

std::string by_descriptor(int fd) {
  return fmt::format("/proc/self/fd/{}", fd);
}

/* The requested times, and the present ones otherwise: Linux 2.6.18 can only set both. */
std::array<timespec, 2> both_times(const Replica::Attributes &a, const struct stat &status) {
  return {a.atime.value_or(status.st_atim), a.mtime.value_or(status.st_mtim)};
}

/* Opens a regular file for writing, and for reading where we may. `object` is an O_PATH descriptor
 * of it, so a rename cannot replace the file in between. */
Result<UniqueFd> open_for_writing(int object) {
  struct stat status;
  if (fstat(object, &status) != 0) return failed(errno);
  if (!S_ISREG(status.st_mode))
    return Error{-EINVAL, "the replica has something there that is no regular file"};
  const std::string path = by_descriptor(object);
  UniqueFd file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  if (!file && errno == EACCES) file = UniqueFd(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
  if (!file && errno == EACCES && status.st_uid == geteuid()) {
    // A read-only file of ours: a program that opened it before may still write, so we must too.
    const mode_t mode = status.st_mode & kModeBits;
    if (chmod(path.c_str(), mode | S_IWUSR) != 0) return failed(errno);
    file = UniqueFd(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    const int err = errno;
    if (chmod(path.c_str(), mode) != 0) return failed(errno);
    errno = err;
  }
  if (!file) return failed(errno);
  return file;
}

/* The type of the name's object; 0 if there is none. */
mode_t type_of(int directory, const std::string &name) {
  struct stat status;
  return fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0
             ? status.st_mode & S_IFMT
             : 0;
}

bool same_object(int directory1, const std::string &name1, int directory2,
                 const std::string &name2) {
  struct stat a, b;
  return fstatat(directory1, name1.c_str(), &a, AT_SYMLINK_NOFOLLOW) == 0 &&
         fstatat(directory2, name2.c_str(), &b, AT_SYMLINK_NOFOLLOW) == 0 && a.st_ino == b.st_ino &&
         a.st_dev == b.st_dev;
}

/* Sets the times of the descriptor's object, however it was opened. */
Result<void> set_times(int object, const Replica::Attributes &a) {
  if (!a.atime && !a.mtime) return {};
  struct stat status;
  if (fstat(object, &status) != 0) return failed(errno);
  if (utimensat(AT_FDCWD, by_descriptor(object).c_str(), both_times(a, status).data(), 0) != 0)
    return failed(errno);
  return {};
}

/* The order matters: ftruncate clears set-id bits and sets times, fchown clears set-id bits. */
Result<void> set_through_file(int file, const Replica::Attributes &a) {
  if (a.size && ftruncate(file, static_cast<off_t>(*a.size)) != 0) return failed(errno);
  if ((a.uid || a.gid) && fchown(file, a.uid.value_or(-1), a.gid.value_or(-1)) != 0)
    return failed(errno);
  if (a.mode && fchmod(file, *a.mode & kModeBits) != 0) return failed(errno);
  if (a.atime && a.mtime) {
    const std::array<timespec, 2> times{*a.atime, *a.mtime};
    if (futimens(file, times.data()) == 0) return {};
    // Kernels before 2.6.22 have no call for a descriptor alone, and say so in either way.
    if (errno != ENOSYS && errno != EFAULT) return failed(errno);
  }
  return set_times(file, a);
}

/* Sets the times of a symbolic link, which has no mode. Kernels before 2.6.22 have no call for it:
 * they stay as they are. */
Result<void> set_of_link(int directory, const std::string &name, const struct stat &status,
                         const Replica::Attributes &a) {
  if (a.mode) return Error{-EOPNOTSUPP, "a symbolic link has no mode"};
  if ((a.atime || a.mtime) &&
      utimensat(directory, name.c_str(), both_times(a, status).data(), AT_SYMLINK_NOFOLLOW) != 0 &&
      errno != ENOSYS)
    return failed(errno);
  return {};
}

/* Without O_PATH: opening a device has side effects, opening a socket fails. */
Result<void> set_of_special(int directory, const std::string &name, const struct stat &status,
                            const Replica::Attributes &a) {
  if (a.mode && fchmodat(directory, name.c_str(), *a.mode & kModeBits, 0) != 0)
    return failed(errno);
  if ((a.atime || a.mtime) &&
      utimensat(directory, name.c_str(), both_times(a, status).data(), 0) != 0)
    return failed(errno);
  return {};
}

/* For objects that are not open for writing, directories and links for example. */
Result<void> set_through_name(int directory, const std::string &name,
                              const Replica::Attributes &a) {
  if ((a.uid || a.gid) && fchownat(directory, name.c_str(), a.uid.value_or(-1), a.gid.value_or(-1),
                                   AT_SYMLINK_NOFOLLOW) != 0)
    return failed(errno);
  struct stat status;
  if (fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return failed(errno);
  if (S_ISLNK(status.st_mode)) return set_of_link(directory, name, status, a);
  if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode) && !has_path_descriptors())
    return set_of_special(directory, name, status, a);
  const UniqueFd object(openat(directory, name.c_str(), kObjectFlags));
  if (!object) return failed(errno);
  if (a.mode && chmod(by_descriptor(object.get()).c_str(), *a.mode & kModeBits) != 0)
    return failed(errno);
  return set_times(object.get(), a);
}

}  // namespace

Result<Replica> Replica::open(const std::string &directory) {
  // Not O_PATH: syncfs reports the errors since the open of a descriptor, and needs a real one.
  UniqueFd root(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!root)
    return system_error(errno, "cannot open the replica directory " + printable(directory));
  return Replica(std::move(root));
}

Result<bool> Replica::must_close_to_others() {
  struct statvfs mount;
  struct stat status;
  if (fstatvfs(root_.get(), &mount) != 0 || fstat(root_.get(), &status) != 0) return failed(errno);
  closed_to_others_ = (mount.f_flag & ST_NOSUID) == 0;
  if (!closed_to_others_ || (status.st_mode & kForOthers) == 0) return false;
  // Sets the present mode: only a test of whether we may change it.
  if (fchmod(root_.get(), status.st_mode & kModeBits) != 0) return failed(errno);
  return true;
}

Result<void> Replica::close_to_others() {
  if (fchmod(root_.get(), 0700) != 0) return failed(errno);
  return {};
}

Result<Replica::Place> Replica::place(const std::string &path) {
  if (path.empty()) return Place{root_.get(), "."};
  if (!plain_relative(path)) return Error{-EXDEV, "the path would leave the replica"};
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return Place{root_.get(), path};
  const std::string parent = path.substr(0, slash);
  int fd = directories_.find(parent);
  if (fd < 0) {
    auto opened = open_directory_below(root_.get(), parent);
    if (!opened) return failed(-opened.error().code);
    fd = directories_.put(parent, std::move(*opened));
  }
  return Place{fd, path.substr(slash + 1)};
}

Result<Replica::TwoPlaces> Replica::places(const std::string &first, const std::string &second) {
  auto one = place(first);
  if (!one) return one.error();
  TwoPlaces two{UniqueFd(fcntl(one->fd, F_DUPFD_CLOEXEC, 0)), std::move(*one), {}};
  if (!two.held) return failed(errno);
  two.first.fd = two.held.get();
  auto other = place(second);
  if (!other) return other.error();
  two.second = std::move(*other);
  return two;
}

Result<int> Replica::writable(const std::string &path) {
  if (const int cached = files_.find(path); cached >= 0) return cached;
  const auto at = place(path);
  if (!at) return at.error();
  const UniqueFd object(openat(at->fd, at->name.c_str(), kObjectFlags));
  if (!object) return failed(errno);
  auto file = open_for_writing(object.get());
  if (!file) return file.error();
  return files_.put(path, std::move(*file));
}

Result<Replica::Done> Replica::create(const std::string &path, std::uint32_t mode) {
  const auto at = place(path);
  if (!at) return at.error();
  files_.forget(path);
  UniqueFd file(openat(at->fd, at->name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                       mode & kModeBits));
  if (file) {
    files_.put(path, std::move(file));
    return Done::kChanged;
  }
  if (errno != EEXIST) return failed(errno);
  // Its contents are older than the created file, which begins empty.
  auto existing = writable(path);
  if (!existing) return existing.error();
  if (ftruncate(*existing, 0) != 0 || fchmod(*existing, mode & kModeBits) != 0)
    return failed(errno);
  return Done::kAlready;
}

Result<Replica::Done> Replica::mkdir(const std::string &path, std::uint32_t mode) {
  const auto at = place(path);
  if (!at) return at.error();
  if (mkdirat(at->fd, at->name.c_str(), mode & kModeBits) == 0) return Done::kChanged;
  const int err = errno;
  if (err == EEXIST && type_of(at->fd, at->name) == S_IFDIR) return Done::kAlready;
  return failed(err);
}

Result<Replica::Done> Replica::unlink(const std::string &path) {
  files_.forget(path);
  const auto at = place(path);
  if (!at) return at.error();
  if (unlinkat(at->fd, at->name.c_str(), 0) == 0) return Done::kChanged;
  if (errno == ENOENT) return Done::kAlready;
  return failed(errno);
}

Result<Replica::Done> Replica::rmdir(const std::string &path) {
  const auto at = place(path);
  if (!at) return at.error();
  if (unlinkat(at->fd, at->name.c_str(), AT_REMOVEDIR) != 0) {
    // A removal that was refused is recorded too, and fails here if the directory is not empty.
    if (errno == ENOENT || errno == ENOTEMPTY || errno == EEXIST) return Done::kAlready;
    return failed(errno);
  }
  directories_.forget_tree(path);
  return Done::kChanged;
}

Result<Replica::Done> Replica::symlink(const std::string &target, const std::string &path) {
  const auto at = place(path);
  if (!at) return at.error();
  if (symlinkat(target.c_str(), at->fd, at->name.c_str()) == 0) return Done::kChanged;
  const int err = errno;
  std::string there(target.size() + 1, '\0');
  const ssize_t length = readlinkat(at->fd, at->name.c_str(), there.data(), there.size());
  if (err == EEXIST && length == static_cast<ssize_t>(target.size()) && there.starts_with(target))
    return Done::kAlready;
  return failed(err);
}

Result<Replica::Done> Replica::link(const std::string &existing, const std::string &path) {
  const auto two = places(existing, path);
  if (!two) return two.error();
  const auto &[held, from, to] = *two;
  if (linkat(from.fd, from.name.c_str(), to.fd, to.name.c_str(), 0) == 0) return Done::kChanged;
  const int err = errno;
  if (err == EEXIST && same_object(from.fd, from.name, to.fd, to.name)) return Done::kAlready;
  return failed(err);
}

Result<Replica::Done> Replica::rename(const std::string &from_path, const std::string &to_path) {
  const auto two = places(from_path, to_path);
  if (!two) return two.error();
  const auto &[held, from, to] = *two;
  if (renameat(from.fd, from.name.c_str(), to.fd, to.name.c_str()) != 0) return failed(errno);
  for (const std::string *path : {&from_path, &to_path}) {
    files_.forget_tree(*path);
    directories_.forget_tree(*path);
  }
  return Done::kChanged;
}

Result<Replica::Done> Replica::write(const std::string &path, std::uint64_t offset, Bytes data) {
  const auto file = writable(path);
  if (!file) return file.error();
  while (!data.empty()) {
    const ssize_t written = pwrite(*file, data.data(), data.size(), static_cast<off_t>(offset));
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return failed(errno);
    offset += static_cast<std::uint64_t>(written);
    data = data.subspan(static_cast<std::size_t>(written));
  }
  return Done::kChanged;
}

Result<Replica::Done> Replica::make_special(const std::string &path, std::uint32_t mode,
                                            dev_t device) {
  const auto at = place(path);
  if (!at) return at.error();
  if (mknodat(at->fd, at->name.c_str(), mode & (S_IFMT | kModeBits), device) != 0)
    return failed(errno);
  return Done::kChanged;
}

Result<Replica::Done> Replica::remove_tree(const std::string &path) {
  const auto there = find(path);
  if (!there) return there.error();
  if (!*there) return Done::kAlready;
  if (path.empty()) return Error{-EINVAL, "the replica itself is not removed"};
  if (!S_ISDIR((*there)->st_mode)) {
    if ((*there)->st_nlink > 1) note_partly_unlinked(**there);
    return unlink(path);
  }
  const auto inside = names(path);
  if (!inside) return inside.error();
  for (const std::string &name : *inside) {
    if (const auto removed = remove_tree(path + "/" + name); !removed) return removed;
  }
  const auto at = place(path);
  if (!at) return at.error();
  directories_.forget_tree(path);
  if (unlinkat(at->fd, at->name.c_str(), AT_REMOVEDIR) != 0) return failed(errno);
  return Done::kChanged;
}

Result<std::optional<struct stat>> Replica::find(const std::string &path) {
  const auto at = place(path);
  const auto absent = [](int err) { return err == ENOENT || err == ENOTDIR || err == ELOOP; };
  if (!at && absent(-at.error().code)) return std::optional<struct stat>();
  if (!at) return at.error();
  struct stat status;
  if (fstatat(at->fd, at->name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
    return std::optional<struct stat>(status);
  if (absent(errno)) return std::optional<struct stat>();
  return failed(errno);
}

Result<std::optional<struct stat>> Replica::find_written(const std::string &path) {
  const int file = files_.find(path);
  if (file < 0) return find(path);
  struct stat status;
  if (fstat(file, &status) != 0) return failed(errno);
  return std::optional<struct stat>(status);
}

Result<void> Replica::names_below(const std::string &directory, const Objects &objects,
                                  std::vector<std::string> &found) {
  const auto here = find(directory);
  if (!here) return here.error();
  if (!*here) return {};
  const auto entries = entries_of(directory);
  if (!entries) return entries.error();
  Result<void> first;
  for (const DirectoryEntry &entry : *entries) {
    const std::string path = directory.empty() ? entry.name : directory + "/" + entry.name;
    if (!entry.may_be_directory && !objects.contains({(*here)->st_dev, entry.inode})) continue;
    const auto there = find(path);
    if (first.ok() && !there) first = there.error();
    if (!there || !*there) continue;
    if (objects.contains({(*there)->st_dev, (*there)->st_ino})) found.push_back(path);
    if (!S_ISDIR((*there)->st_mode)) continue;
    if (auto below = names_below(path, objects, found); first.ok() && !below) first = below;
  }
  return first;
}

Result<std::vector<DirectoryEntry>> Replica::entries_of(const std::string &path) {
  const auto at = place(path);
  if (!at) return at.error();
  UniqueFd directory(
      openat(at->fd, at->name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!directory) return failed(errno);
  return directory_entries(std::move(directory));
}

Result<std::vector<std::string>> Replica::names(const std::string &path) {
  const auto entries = entries_of(path);
  if (!entries) return entries.error();
  std::vector<std::string> found;
  for (const DirectoryEntry &entry : *entries) found.push_back(entry.name);
  return found;
}

Result<Replica::Done> Replica::set_attributes(const std::string &path, const Attributes &wanted) {
  Attributes attributes = wanted;
  if (path.empty() && closed_to_others_ && attributes.mode) *attributes.mode &= ~kForOthers;
  int file = files_.find(path);
  if (file < 0 && attributes.size) {
    const auto opened = writable(path);
    if (!opened) return opened.error();
    file = *opened;
  }
  Result<void> set;
  if (file >= 0) {
    set = set_through_file(file, attributes);
  } else {
    const auto at = place(path);
    if (!at) return at.error();
    set = set_through_name(at->fd, at->name, attributes);
  }
  if (!set) return set.error();
  return Done::kChanged;
}

Result<XattrPlace> Replica::xattr_place(const std::string &path) {
  if (const int file = files_.find(path); file >= 0) return XattrPlace{.fd = file};
  const auto at = place(path);
  if (!at) return at.error();
  // The directory is ours by its descriptor, and the name is not followed if it is a link.
  return XattrPlace{.path = by_descriptor(at->fd) + "/" + at->name};
}

std::vector<Replica::WriteBackError> Replica::take_write_back_errors() {
  std::vector<WriteBackError> errors;
  for (auto &[path, err] : files_.take_close_errors())
    errors.push_back({std::move(path), failed(err)});
  return errors;
}

void Replica::close_files() {
  files_.forget_all();
}

Result<void> Replica::sync() {
  if (syncfs(root_.get()) == 0) return {};
  if (errno != ENOSYS) return failed(errno);
  ::sync();  // Linux 2.6.18 has no syncfs
  return {};
}

}  // namespace tarn
