// SPDX-License-Identifier: GPL-2.0
#include "mirrord/control/socket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>

#include <cerrno>

#include <fmt/format.h>

#include "base/run_dir.h"
#include "base/text.h"

namespace tarn {
namespace {

struct SocketPath {
  std::string directory, name;
};

SocketPath split(const std::string &path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return {".", path};
  return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

Result<UniqueFd> open_directory(const std::string &path) {
  UniqueFd directory(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!directory) return system_error(errno, "cannot open the directory " + printable(path));
  return directory;
}

Result<UniqueFd> stream_socket() {
  UniqueFd made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!made) return system_error(errno, "cannot create a socket");
  return made;
}

/* 0 or an error number. */
int connect_to(const UniqueFd &socket, const sockaddr_un &address) {
  while (connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0)
    if (errno != EINTR) return errno;
  return 0;
}

/* Modes as of the run directory, in which the socket may lie: the mount's daemon makes it so. */
Result<void> make_directory(const std::string &path) {
  const mode_t mode = geteuid() == 0 ? 0755 : 0700;
  if (mkdir(path.c_str(), mode) != 0) {
    if (errno == EEXIST) return {};
    return system_error(errno, "cannot make the directory " + printable(path));
  }
  if (chmod(path.c_str(), mode) != 0)
    return system_error(errno, "cannot set the mode of " + printable(path));
  return {};
}

Result<void> check_directory(int directory, const std::string &path) {
  struct stat status;
  if (fstat(directory, &status) != 0)
    return system_error(errno, "cannot look up the directory " + printable(path));
  if (status.st_uid != 0 && status.st_uid != geteuid())
    return Error{-EPERM, fmt::format("the directory {} of the control socket belongs to user {}: "
                                     "give it to user {} or name another socket",
                                     printable(path), status.st_uid, geteuid())};
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
    return Error{-EPERM, fmt::format("the directory {} of the control socket can be written by "
                                     "others: 'chmod go-w' it or name another socket",
                                     printable(path))};
  return {};
}

Error served(const std::string &path) {
  return {-EBUSY, fmt::format("a mirrord service answers already on {}: stop it, or name another "
                              "socket",
                              printable(path))};
}

Result<UniqueFd> take_lock(int directory, const std::string &name, const std::string &path) {
  const std::string file = name + ".lock", shown = printable(path + ".lock");
  UniqueFd lock(openat(directory, file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!lock) return system_error(errno, "cannot open " + shown);
  if (flock(lock.get(), LOCK_EX | LOCK_NB) == 0) return lock;
  if (errno == EWOULDBLOCK) return served(path);
  return system_error(errno, "cannot lock " + shown);
}

/* Removes a socket that nobody listens on. With the lock held: no service is about to listen. */
Result<void> remove_stale(int directory, const std::string &name, const std::string &path) {
  const std::string shown = printable(path);
  struct stat status;
  if (fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return {};
    return system_error(errno, "cannot look up " + shown);
  }
  if (!S_ISSOCK(status.st_mode))
    return Error{-EEXIST,
                 fmt::format("{} is no socket: remove it, or name another control socket", shown)};
  const auto address = socket_address(directory, name);
  if (!address) return address.error();
  auto trial = stream_socket();
  if (!trial) return trial.error();
  const int err = connect_to(*trial, *address);
  // EAGAIN: its queue is full. EPROTOTYPE: the listener is of another kind.
  if (err == 0 || err == EAGAIN || err == EPROTOTYPE) return served(path);
  if (err != ECONNREFUSED) return system_error(err, "cannot look who listens on " + shown);
  if (unlinkat(directory, name.c_str(), 0) != 0)
    return system_error(errno, "cannot replace " + shown);
  return {};
}

Error cannot_connect(const std::string &path, int err) {
  const std::string shown = printable(path);
  if (err == ENOENT || err == ECONNREFUSED)
    return {-err, fmt::format("no mirrord service answers on {}: start it with 'systemctl start "
                              "mirrord' or 'mirrord run --config FILE', or name its socket with "
                              "--socket",
                              shown)};
  if (err == EACCES)
    return {-err, fmt::format("you may not connect to {}: ask as root or as the user that runs "
                              "mirrord",
                              shown)};
  if (err == EAGAIN)
    return {-err,
            fmt::format("the mirrord service on {} takes no more connections: try again", shown)};
  return system_error(err, "cannot connect to " + shown);
}

}  // namespace

Result<ListeningSocket> ListeningSocket::open(const std::string &path) {
  const SocketPath parts = split(path);
  if (parts.name.empty())
    return Error{-EINVAL, printable(path) + " is a directory: name a socket in it"};
  if (auto made = make_directory(parts.directory); !made) return made.error();
  auto directory = open_directory(parts.directory);
  if (!directory) return directory.error();
  if (auto safe = check_directory(directory->get(), parts.directory); !safe) return safe.error();
  const auto address = socket_address(directory->get(), parts.name);
  if (!address) return address.error();
  auto lock = take_lock(directory->get(), parts.name, path);
  if (!lock) return lock.error();
  if (auto free = remove_stale(directory->get(), parts.name, path); !free) return free.error();
  auto socket = stream_socket();
  if (!socket) return socket.error();
  // Before bind(), which takes the mode from here: nobody else can connect at any moment.
  const int fd = socket->get();
  if (fchmod(fd, 0600) != 0 ||
      bind(fd, reinterpret_cast<const sockaddr *>(&*address), sizeof(*address)) != 0)
    return system_error(errno, "cannot bind " + printable(path));
  ListeningSocket made;
  if (fstatat(directory->get(), parts.name.c_str(), &made.made_, AT_SYMLINK_NOFOLLOW) != 0)
    return system_error(errno, "cannot look up " + printable(path));
  made.directory_ = std::move(*directory);
  made.lock_ = std::move(*lock);
  made.socket_ = std::move(*socket);
  made.name_ = parts.name;
  if (listen(fd, SOMAXCONN) != 0) return system_error(errno, "cannot listen on " + printable(path));
  return made;
}

ListeningSocket::~ListeningSocket() {
  if (!directory_) return;
  // Before the lock goes: the next service makes a socket of the same name.
  struct stat status;
  if (fstatat(directory_.get(), name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
      status.st_ino == made_.st_ino && status.st_dev == made_.st_dev)
    unlinkat(directory_.get(), name_.c_str(), 0);
}

Result<UniqueFd> connect_control(const std::string &path) {
  const SocketPath parts = split(path);
  const UniqueFd directory(::open(parts.directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!directory) return cannot_connect(path, errno);
  const auto address = socket_address(directory.get(), parts.name);
  if (!address) return address.error();
  auto socket = stream_socket();
  if (!socket) return socket.error();
  if (const int err = connect_to(*socket, *address); err != 0) return cannot_connect(path, err);
  const auto peer = peer_credentials(socket->get());
  if (!peer) return peer.error();
  if (geteuid() != 0 && peer->uid != 0 && peer->uid != geteuid())
    return Error{-EPERM, fmt::format("{} belongs to user {}, who is neither root nor you: name "
                                     "your own service's socket with --socket",
                                     printable(path), peer->uid)};
  return socket;
}

}  // namespace tarn
