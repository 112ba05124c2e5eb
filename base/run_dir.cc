// SPDX-License-Identifier: GPL-2.0
#include "base/run_dir.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fmt/format.h>

#include "base/text.h"

namespace tarn {
namespace {

struct SocketAddress {
  UniqueFd directory; /* stays open while the address is used */
  sockaddr_un address;

  const sockaddr *get() const { return reinterpret_cast<const sockaddr *>(&address); }
};

/* 0 or an error number. */
int make_address(const std::string &run_dir, const std::string &name, SocketAddress &out) {
  out.directory = UniqueFd(open(run_dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!out.directory) return errno;
  const auto address = socket_address(out.directory.get(), name);
  if (!address) return -address.error().code;
  out.address = *address;
  return 0;
}

}  // namespace

std::string run_directory() {
  const auto set = [](const char *name) {
    const char *value = std::getenv(name);
    return value && *value ? value : nullptr;
  };
  if (const char *given = set("TARN_RUN_DIR")) return given;
  if (geteuid() == 0) return "/run/tarn";
  if (const char *runtime = set("XDG_RUNTIME_DIR")) return std::string(runtime) + "/tarn";
  return fmt::format("/tmp/tarn-{}", geteuid());
}

/* A socket address holds 107 bytes; by /proc/self/fd of its directory any path fits. */
Result<sockaddr_un> socket_address(int directory, const std::string &name) {
  const std::string path = fmt::format("/proc/self/fd/{}/{}", directory, name);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path))
    return system_error(ENAMETOOLONG, "the name of the socket " + printable(name));
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

Result<UniqueFd> listen_socket(const std::string &run_dir, const std::string &name) {
  const std::string path = run_dir + "/" + name, shown = printable(path);
  if (unlink(path.c_str()) != 0 && errno != ENOENT)
    return system_error(errno, "cannot replace " + shown);
  SocketAddress at;
  if (const int err = make_address(run_dir, name, at); err != 0)
    return system_error(err, "cannot listen on " + shown);
  UniqueFd socket_fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (!socket_fd) return system_error(errno, "cannot create a socket");
  if (bind(socket_fd.get(), at.get(), sizeof(at.address)) != 0)
    return system_error(errno, "cannot bind " + shown);
  if (chmod(path.c_str(), 0666) != 0) return system_error(errno, shown);
  if (listen(socket_fd.get(), SOMAXCONN) != 0)
    return system_error(errno, "cannot listen on " + shown);
  return socket_fd;
}

Result<UniqueFd> connect_socket(const std::string &run_dir, const std::string &name) {
  const std::string shown = printable(run_dir + "/" + name);
  const auto failed = [&](int err) -> Error {
    if (err == ENOENT || err == ECONNREFUSED)
      return {-err, fmt::format("no tarnd runs in {}: start one with 'tarn mount LOWER MOUNTPOINT'",
                                printable(run_dir))};
    return system_error(err, "cannot connect to " + shown);
  };
  SocketAddress at;
  if (const int err = make_address(run_dir, name, at); err != 0) return failed(err);
  UniqueFd socket_fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (!socket_fd) return failed(errno);
  while (connect(socket_fd.get(), at.get(), sizeof(at.address)) != 0) {
    if (errno != EINTR) return failed(errno);
  }
  // Any user may make a directory in /tmp and listen there.
  const auto peer = peer_credentials(socket_fd.get());
  if (!peer) return failed(-peer.error().code);
  if (geteuid() != 0 && peer->uid != 0 && peer->uid != geteuid())
    return Error{
        -EPERM,
        fmt::format("{} belongs to user {}, who is neither root nor you: set TARN_RUN_DIR to "
                    "your own tarnd's directory",
                    shown, peer->uid)};
  return socket_fd;
}

bool no_tarnd_there(const Error &error) {
  return error.code == -ENOENT || error.code == -ECONNREFUSED;
}

Result<ucred> peer_credentials(int connection) {
  ucred peer{};
  socklen_t length = sizeof(peer);
  if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0)
    return system_error(errno, "cannot read the credentials of a socket's peer");
  return peer;
}

Result<pid_t> serving_process(const UniqueFd &connection) {
  const auto peer = peer_credentials(connection.get());
  if (!peer) return peer.error();
  if (peer->pid <= 1) return Error{-ESRCH, "tarnd's process is not seen from here"};
  return peer->pid;
}

}  // namespace tarn
