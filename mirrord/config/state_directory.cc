// SPDX-License-Identifier: GPL-2.0
#include "mirrord/config/state_directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <memory>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "base/text.h"
#include "base/text_file.h"
#include "mirrord/config/names.h"

namespace tarn {
namespace {

constexpr char kVersion[] = "VERSION", kNewVersion[] = "VERSION.new", kLock[] = "LOCK";
constexpr std::string_view kVersionHead = "tarn mirrord state ";
constexpr int kKnownVersion = 1;

std::string subject(const std::string &path) {
  return "the state directory " + printable(path);
}

Error failed(int err, const std::string &what, const std::string &path) {
  return system_error(err, "cannot " + what + " " + subject(path));
}

/* Directories that were made, and files made in the last of them. They go again with the object,
 * unless keep() was called. */
class Made {
 public:
  Made() = default;
  ~Made() {
    for (const char *name : files_) unlinkat(directory_, name, 0);
    for (auto path = directories_.rbegin(); path != directories_.rend(); ++path)
      rmdir(path->c_str());
  }
  Made(const Made &) = delete;
  Made &operator=(const Made &) = delete;

  void directory(std::string path) { directories_.push_back(std::move(path)); }
  void file(int directory, const char *name) {
    directory_ = directory;
    files_.push_back(name);
  }
  void keep() {
    files_.clear();
    directories_.clear();
  }

 private:
  std::vector<std::string> directories_{};
  int directory_ = -1;
  std::vector<const char *> files_{};
};

/* 0 or an error number. */
int sync_directory(const std::string &path) {
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return fd && fsync(fd.get()) == 0 ? 0 : errno;
}

/* The directory, made with those above it if it is missing. A name that was made is on the disk. */
Result<UniqueFd> open_or_make(const std::string &path, Made &made) {
  constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
  UniqueFd fd(open(path.c_str(), kFlags));
  if (fd) return fd;
  if (errno != ENOENT) return failed(errno, "open", path);
  for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    const std::string part = path.substr(0, end);
    struct stat status;
    if (mkdir(part.c_str(), end == std::string::npos ? 0700 : 0755) == 0) {
      made.directory(part);
      const std::size_t slash = part.rfind('/');
      if (const int err = sync_directory(slash == 0 ? "/" : part.substr(0, slash)); err != 0)
        return failed(err, "make", path);
    } else if (const int err = errno; stat(part.c_str(), &status) != 0) {
      return failed(err == EEXIST ? ENOENT : err, "make", path);
    }
    if (end == std::string::npos) break;
  }
  fd = UniqueFd(open(path.c_str(), kFlags));
  if (!fd) return failed(errno, "open", path);
  return fd;
}

/* Ours, and closed to all others? */
Result<void> check_owner(int directory, const std::string &path) {
  struct stat status;
  if (fstat(directory, &status) != 0) return failed(errno, "look up", path);
  if (status.st_uid != geteuid())
    return Error{-EPERM, fmt::format("{} belongs to user {} and mirrord runs as user {}: run it as "
                                     "that user, or name another directory",
                                     subject(path), status.st_uid, geteuid())};
  if ((status.st_mode & 077) != 0)
    return Error{-EPERM,
                 fmt::format("{} is open to others, its mode is {:04o}: look what they have done "
                             "there, then give it mode 0700",
                             subject(path), status.st_mode & 07777)};
  return {};
}

/* Holds it nothing but what an interrupted beginning leaves? */
Result<bool> is_empty(int directory, const std::string &path) {
  UniqueFd fd(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::unique_ptr<DIR, int (*)(DIR *)> stream(fd ? fdopendir(fd.get()) : nullptr, closedir);
  if (!stream) return failed(errno, "read", path);
  fd.release();
  errno = 0;
  while (const dirent *entry = readdir(stream.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != ".." && name != kLock && name != kNewVersion) return false;
    errno = 0;
  }
  if (errno != 0) return failed(errno, "read", path);
  return true;
}

enum class Begun { kNo, kYes };

/* Is it one of a version that we know (kYes), or an empty directory (kNo)? */
Result<Begun> check_version(int directory, const std::string &path) {
  constexpr int kFlags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
  UniqueFd fd(openat(directory, kVersion, kFlags));
  if (!fd && errno == ENOENT) {
    const auto empty = is_empty(directory, path);
    if (!empty) return empty.error();
    if (*empty) return Begun::kNo;
    // Another service may have begun here meanwhile.
    fd = UniqueFd(openat(directory, kVersion, kFlags));
  }
  if (!fd && errno == ENOENT)
    return Error{-EBADMSG, fmt::format("{} is none of mirrord: it holds files and no {}; name an "
                                       "empty or a new directory",
                                       subject(path), kVersion)};
  if (!fd) return failed(errno, "read the version of", path);
  char bytes[64];
  const ssize_t length = read(fd.get(), bytes, sizeof(bytes));
  if (length < 0) return failed(errno, "read the version of", path);
  std::string_view text(bytes, static_cast<std::size_t>(length));
  const bool known_head = text.starts_with(kVersionHead) && text.ends_with('\n');
  if (known_head) text = text.substr(kVersionHead.size(), text.size() - kVersionHead.size() - 1);
  int version = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), version);
  if (!known_head || error != std::errc{} || end != text.data() + text.size() || text[0] == '0')
    return Error{-EBADMSG, fmt::format("{} is damaged or none of mirrord: its {} says {}; restore "
                                       "it, or name another directory",
                                       subject(path), kVersion, printable(text))};
  if (version == kKnownVersion) return Begun::kYes;
  return Error{-EBADMSG, fmt::format("{} is of version {} and this mirrord knows version {}: run "
                                     "the mirrord that made it, or name another directory",
                                     subject(path), version, kKnownVersion)};
}

std::string holder(int lock) {
  char text[16];
  pid_t pid = 0;
  const ssize_t length = pread(lock, text, sizeof(text), 0);
  if (length <= 0 || std::from_chars(text, text + length, pid).ec != std::errc{} || pid <= 0)
    return "unknown process";
  return fmt::format("process {}", pid);
}

/* The lock; `made` if it was made for it. */
Result<UniqueFd> take_lock(int directory, const std::string &path, Made &made) {
  constexpr int kFlags = O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
  UniqueFd fd(openat(directory, kLock, kFlags));
  if (!fd && errno == ENOENT) {
    fd = UniqueFd(openat(directory, kLock, kFlags | O_CREAT | O_EXCL, 0600));
    if (fd) made.file(directory, kLock);
    // Another service has just made it.
    if (!fd && errno == EEXIST) fd = UniqueFd(openat(directory, kLock, kFlags));
  }
  if (!fd) return failed(errno, "lock", path);
  while (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EINTR) continue;
    if (errno != EWOULDBLOCK) return failed(errno, "lock", path);
    made.keep();  // of use to the service that has it
    return Error{
        -EBUSY, fmt::format("another mirrord ({}) uses {}: end it first, or name another directory "
                            "for this one",
                            holder(fd.get()), subject(path))};
  }
  // Between open and lock another service may have begun here, failed, and removed the file.
  struct stat locked, named;
  if (fstat(fd.get(), &locked) != 0 ||
      fstatat(directory, kLock, &named, AT_SYMLINK_NOFOLLOW) != 0 ||
      locked.st_ino != named.st_ino || !S_ISREG(locked.st_mode))
    return Error{
        -EBUSY, fmt::format("another process changes {} at this moment: try again", subject(path))};
  return fd;
}

/* Replaces a file of the directory; 0 or an error number. */
int replace_file(int directory, const char *temporary, const char *name, std::string_view text) {
  UniqueFd fd(openat(directory, temporary,
                     O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
  if (!fd) return errno;
  int err = write_text(fd.get(), text);
  if (err == 0 && fsync(fd.get()) != 0) err = errno;
  if (const int close_error = fd.close(); err == 0) err = close_error;
  if (err == 0 && renameat(directory, temporary, directory, name) != 0) err = errno;
  if (err != 0) unlinkat(directory, temporary, 0);
  if (err == 0 && fsync(directory) != 0) err = errno;
  return err;
}

/* 0 or an error number. */
int write_pid(int lock) {
  const std::string text = fmt::format("{}\n", getpid());
  if (ftruncate(lock, 0) != 0 || lseek(lock, 0, SEEK_SET) != 0) return errno;
  return write_text(lock, text);
}

}  // namespace

Result<StateDirectory> StateDirectory::open(const std::string &directory) {
  if (directory.empty() || directory[0] != '/')
    return Error{-EINVAL, subject(directory) + " is not absolute: begin it with '/'"};
  std::string path = directory;
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  UniqueFd fd, lock;
  Made made;  // what it takes back it takes back under the lock
  auto opened = open_or_make(path, made);
  if (!opened) return opened.error();
  fd = std::move(*opened);
  if (auto owner = check_owner(fd.get(), path); !owner) return owner.error();
  // The lock comes second: nothing is made in a directory that is not ours. What another service
  // has done until then is looked at again.
  if (auto version = check_version(fd.get(), path); !version) return version.error();
  auto taken = take_lock(fd.get(), path, made);
  if (!taken) return taken.error();
  lock = std::move(*taken);
  const auto version = check_version(fd.get(), path);
  if (!version) return version.error();
  if (const int err = write_pid(lock.get()); err != 0) return failed(err, "write in", path);
  if (*version == Begun::kNo) {
    made.file(fd.get(), kVersion);
    const int err = replace_file(fd.get(), kNewVersion, kVersion,
                                 fmt::format("{}{}\n", kVersionHead, kKnownVersion));
    if (err != 0) return failed(err, "write in", path);
  }
  made.keep();
  return StateDirectory(std::move(path), std::move(fd), std::move(lock));
}

Result<std::string> StateDirectory::source(const std::string &name) const {
  if (!good_config_name(name))
    return Error{-EINVAL, fmt::format("{} is no name of a source; expected {}", printable(name),
                                      kConfigNameForm)};
  std::string path = path_ + "/" + name;
  const bool made = mkdirat(directory_.get(), name.c_str(), 0700) == 0;
  if (!made && errno != EEXIST)
    return system_error(errno, "cannot make the directory " + printable(path));
  struct stat status;
  if (fstatat(directory_.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
    return system_error(errno, "cannot look up " + printable(path));
  if (!S_ISDIR(status.st_mode))
    return Error{-ENOTDIR,
                 fmt::format("{} is no directory: it was put into the place of a source's "
                             "state; move it away",
                             printable(path))};
  if (fsync(directory_.get()) != 0)
    return system_error(errno, "cannot make the directory " + printable(path));
  return path;
}

}  // namespace tarn
