// SPDX-License-Identifier: GPL-2.0
#include "client/daemon_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>

#include <fmt/format.h>

#include "base/text.h"

namespace tarn {
namespace {

constexpr char kName[] = "/daemon.lock";

enum class Lock { kTaken, kByAnother, kFailed };

/*
 * Tries to take the exclusive lock. Retries while registered_daemon() holds a shared lock, which is
 * only for a moment. errno is set with kFailed.
 */
Lock try_lock(int fd) {
  for (;;) {
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) return Lock::kTaken;
    if (errno == EINTR) continue;
    if (errno != EWOULDBLOCK) return Lock::kFailed;
    if (flock(fd, LOCK_SH | LOCK_NB) != 0 && errno != EINTR)
      return errno == EWOULDBLOCK ? Lock::kByAnother : Lock::kFailed;
  }
}

bool same_file(int fd, const std::string &path) {
  struct stat open_one, named;
  return fstat(fd, &open_one) == 0 && stat(path.c_str(), &named) == 0 &&
         open_one.st_ino == named.st_ino && open_one.st_dev == named.st_dev;
}

std::optional<pid_t> read_pid(int fd) {
  char text[16];
  const ssize_t length = pread(fd, text, sizeof(text), 0);
  pid_t pid = 0;
  if (length <= 0 || std::from_chars(text, text + length, pid).ec != std::errc{})
    return std::nullopt;
  return pid;
}

/* 0 or an error number. */
int write_pid(int fd) {
  const std::string text = fmt::format("{}\n", getpid());
  if (ftruncate(fd, 0) != 0) return errno;
  const ssize_t written = pwrite(fd, text.data(), text.size(), 0);
  if (written < 0) return errno;
  return written == static_cast<ssize_t>(text.size()) ? 0 : ENOSPC;
}

Error lock_error(int err, const std::string &path) {
  if (err == EACCES || err == EPERM || err == EROFS)
    return {-EPERM,
            fmt::format(
                "cannot become the daemon: {} cannot be written: only root and the user that runs "
                "tarnd may",
                printable(path))};
  if (err == ENOENT || err == ENOTDIR)
    return {-ENOENT,
            fmt::format(
                "cannot become the daemon: no tarnd runs in the directory of {}: start one with "
                "'tarn mount'",
                printable(path))};
  return system_error(err, "cannot lock " + printable(path));
}

/* Only for a module in the kernel: tarnd makes its own run directory. */
Result<void> make_directory(const Site &site) {
  if (!site.in_kernel() || mkdir(site.run_dir.c_str(), 0755) == 0 || errno == EEXIST) return {};
  if (errno == ENOENT)
    return system_error(ENOENT, "cannot make the directory " + printable(site.run_dir));
  return lock_error(errno, site.run_dir + kName);
}

/* Replaces the lock file by a new, locked one with our process id. */
Result<UniqueFd> replace(const std::string &path) {
  std::string temporary = path + ".XXXXXX";
  UniqueFd file(mkostemp(temporary.data(), O_CLOEXEC));
  if (!file) return lock_error(errno, path);
  int err = 0;
  if (fchmod(file.get(), 0644) != 0 || try_lock(file.get()) != Lock::kTaken) err = errno;
  if (err == 0) err = write_pid(file.get());
  if (err == 0 && rename(temporary.c_str(), path.c_str()) != 0) err = errno;
  if (err == 0) return file;
  unlink(temporary.c_str());
  return lock_error(err, path);
}

}  // namespace

Result<DaemonLock> DaemonLock::take(const Site &site, Claim claim) {
  const std::string path = site.run_dir + kName;
  if (auto made = make_directory(site); !made) return made.error();
  for (;;) {
    UniqueFd file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (!file) return lock_error(errno, path);
    const Lock lock = try_lock(file.get());
    if (lock == Lock::kFailed) return lock_error(errno, path);
    if (lock == Lock::kTaken) {
      if (!same_file(file.get(), path)) continue;  // another process has just replaced the file
      if (const int err = write_pid(file.get()); err != 0)
        return system_error(err, "cannot write " + printable(path));
      return DaemonLock(std::move(file), path);
    }
    if (claim == Claim::kRefuseIfTaken) {
      const auto pid = read_pid(file.get());
      return Error{
          -EBUSY,
          fmt::format("process {} is the daemon already: end it first, or take over on purpose",
                      pid ? std::to_string(*pid) : "(unknown)")};
    }
    auto taken = replace(path);
    if (!taken) return taken.error();
    return DaemonLock(std::move(*taken), path);
  }
}

std::optional<DaemonLock> DaemonLock::inherit(const Site &site, UniqueFd file) {
  const std::string path = site.run_dir + kName;
  if (!same_file(file.get(), path) || try_lock(file.get()) != Lock::kTaken ||
      write_pid(file.get()) != 0)
    return std::nullopt;
  return DaemonLock(std::move(file), path);
}

bool DaemonLock::still_ours() const {
  return same_file(file_.get(), path_);
}

Result<std::optional<pid_t>> registered_daemon(const Site &site) {
  const std::string path = site.run_dir + kName;
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file && errno == ENOENT) return std::optional<pid_t>();
  if (!file) return lock_error(errno, path);
  while (flock(file.get(), LOCK_SH | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) return read_pid(file.get());
    if (errno != EINTR) return lock_error(errno, path);
  }
  return std::optional<pid_t>();
}

}  // namespace tarn
