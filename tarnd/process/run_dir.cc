// SPDX-License-Identifier: GPL-2.0
#include "tarnd/process/run_dir.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include <fmt/format.h>

#include "base/text.h"
#include "base/text_file.h"
#include "module/os_public/Include/ox_ctl.h"

namespace tarnd {

namespace fs = std::filesystem;
using tarn::Error;
using tarn::printable;
using tarn::Result;
using tarn::system_error;
using tarn::UniqueFd;

// In a shared directory, another user may have created it first.
static Result<void> check_owner(const std::string &path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return system_error(errno, printable(path));
  if (!S_ISDIR(st.st_mode)) return Error{-ENOTDIR, printable(path) + ": not a directory"};
  if (st.st_uid != geteuid()) return Error{-EPERM, printable(path) + ": belongs to another user"};
  return {};
}

// Mode 0755, although the umask is 0: a user with write permission to a parent could replace our
// directory.
static Result<void> make_parents(const fs::path &path) {
  struct stat st;
  if (stat(path.c_str(), &st) == 0) return {};
  if (path != path.root_path()) {
    if (auto parents = make_parents(path.parent_path()); !parents) return parents;
  }
  if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST)
    return system_error(errno, "cannot create directory " + printable(path.string()));
  return {};
}

static Result<void> make_run_dir(const fs::path &path) {
  const mode_t mode = geteuid() == 0 ? 0755 : 0700;
  if (auto parents = make_parents(path.parent_path()); !parents) return parents;
  if (mkdir(path.c_str(), mode) != 0 && errno != EEXIST)
    return system_error(errno, "cannot create run directory " + printable(path.string()));
  if (auto owner = check_owner(path); !owner) return owner;
  if (chmod(path.c_str(), mode) != 0) return system_error(errno, printable(path.string()));
  return {};
}

static Result<UniqueFd> lock_run_dir(const std::string &path) {
  const std::string file = path + '/' + tarn::kTarndLock;
  UniqueFd lock(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!lock) return system_error(errno, "cannot open " + printable(file));
  if (flock(lock.get(), LOCK_EX | LOCK_NB) == 0) return lock;
  if (errno == EWOULDBLOCK) return Error{-EBUSY, "a tarnd runs already in " + printable(path)};
  return system_error(errno, "cannot lock " + printable(file));
}

Result<RunDir> RunDir::open(const std::string &path) {
  std::error_code error;
  const fs::path absolute = fs::absolute(path, error);
  if (error) return system_error(error.value(), printable(path));
  const fs::path normal = absolute.lexically_normal();
  if (auto made = make_run_dir(normal); !made) return made.error();
  auto lock = lock_run_dir(normal);
  if (!lock) return lock.error();
  return RunDir(normal, std::move(*lock));
}

Result<void> RunDir::write_pid_file() const {
  const std::string path = file(OX_CTL_PID_FILE), shown = printable(path);
  if (unlink(path.c_str()) != 0 && errno != ENOENT)
    return system_error(errno, "cannot replace " + shown);
  // A new file: others may have the old one open for writing, and scripts send signals to this pid.
  const UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  if (!fd) return system_error(errno, "cannot create " + shown);
  if (const int err = tarn::write_text(fd.get(), fmt::format("{}\n", getpid())); err != 0)
    return system_error(err, "cannot write " + shown);
  return {};
}

void RunDir::clean() const {
  for (const char *name : {OX_CTL_SOCKET, OX_CTL_DAEMON_SOCKET, OX_CTL_PID_FILE})
    unlink(file(name).c_str());
}

}  // namespace tarnd
