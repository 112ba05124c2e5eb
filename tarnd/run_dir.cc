// SPDX-License-Identifier: GPL-2.0
#include "tarnd/run_dir.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "module/os_public/Include/ox_ctl.h"

namespace tarnd {

namespace fs = std::filesystem;

static std::runtime_error failure(const std::string &what) {
  return std::runtime_error(what + ": " + std::strerror(errno));
}

fs::path default_run_dir() {
  if (const char *given = std::getenv("TARN_RUN_DIR"); given && *given) return given;
  if (geteuid() == 0) return "/run/tarn";
  if (const char *runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime)
    return fs::path(runtime) / "tarn";
  return "/tmp/tarn-" + std::to_string(geteuid());
}

// In a directory that others may write to, somebody else could have made ours first.
static void check_owner(const fs::path &path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) throw failure(path.string());
  if (!S_ISDIR(st.st_mode)) throw std::runtime_error(path.string() + ": not a directory");
  if (st.st_uid != geteuid()) throw std::runtime_error(path.string() + ": belongs to another user");
}

// With the usual mode, whatever the mask: who may write to them could put another directory in the
// place of ours.
static void make_parents(const fs::path &path) {
  struct stat st;
  if (stat(path.c_str(), &st) == 0) return;
  if (path != path.root_path()) make_parents(path.parent_path());
  if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST)
    throw failure("cannot create directory " + path.string());
}

RunDir::RunDir(fs::path path) : path_(fs::absolute(std::move(path)).lexically_normal()) {
  const mode_t mode = geteuid() == 0 ? 0755 : 0700;
  make_parents(path_.parent_path());
  if (mkdir(path_.c_str(), mode) != 0 && errno != EEXIST)
    throw failure("cannot create run directory " + path_.string());
  check_owner(path_);
  if (chmod(path_.c_str(), mode) != 0) throw failure(path_.string());

  const fs::path lock_path = file("lock");
  lock_ = UniqueFd(::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!lock_) throw failure("cannot open " + lock_path.string());
  if (flock(lock_.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) throw std::runtime_error("a tarnd runs already in " + path_.string());
    throw failure("cannot lock " + lock_path.string());
  }
}

void RunDir::write_pid_file() const {
  const fs::path path = file(OX_CTL_PID_FILE);
  if (unlink(path.c_str()) != 0 && errno != ENOENT)
    throw failure("cannot replace " + path.string());
  // Nobody else must have it open for writing: what it names is what gets signals.
  const UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  if (!fd) throw failure("cannot create " + path.string());
  const std::string text = std::to_string(getpid()) + '\n';
  const ssize_t written = write(fd.get(), text.data(), text.size());
  if (written >= 0 && static_cast<size_t>(written) < text.size()) errno = ENOSPC;
  if (written != static_cast<ssize_t>(text.size())) throw failure("cannot write " + path.string());
}

UniqueFd RunDir::listen(const char *name) const {
  const fs::path path = file(name);
  if (unlink(path.c_str()) != 0 && errno != ENOENT)
    throw failure("cannot replace " + path.string());
  // A socket address holds 107 bytes; through the descriptor any directory fits.
  const UniqueFd directory(::open(path_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!directory) throw failure(path_.string());
  const std::string short_path = "/proc/self/fd/" + std::to_string(directory.get()) + '/' + name;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (short_path.size() >= sizeof(addr.sun_path)) throw std::runtime_error(path.string());
  std::memcpy(addr.sun_path, short_path.c_str(), short_path.size() + 1);

  UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (!fd) throw failure("cannot create a socket");
  if (bind(fd.get(), reinterpret_cast<const sockaddr *>(&addr), sizeof(addr)) != 0)
    throw failure("cannot bind " + path.string());
  if (chmod(path.c_str(), 0666) != 0) throw failure(path.string());
  if (::listen(fd.get(), SOMAXCONN) != 0) throw failure("cannot listen on " + path.string());
  return fd;
}

void RunDir::clean() const {
  for (const char *name : {OX_CTL_SOCKET, OX_CTL_DAEMON_SOCKET, OX_CTL_PID_FILE})
    unlink(file(name).c_str());
}

}  // namespace tarnd
