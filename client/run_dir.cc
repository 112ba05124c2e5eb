// SPDX-License-Identifier: GPL-2.0
#include "client/run_dir.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fmt/format.h>

#include "client/text.h"

namespace tarn {

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

Result<UniqueFd> connect_socket(const std::string &run_dir, const std::string &name) {
  const std::string shown = printable(run_dir + "/" + name);
  const auto failed = [&](int err) -> Error {
    if (err == ENOENT || err == ECONNREFUSED)
      return {-err, fmt::format("no tarnd runs in {}: start one with 'tarn mount LOWER MOUNTPOINT'",
                                printable(run_dir))};
    return system_error(err, "cannot connect to " + shown);
  };
  const UniqueFd directory(open(run_dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!directory) return failed(errno);
  UniqueFd socket_fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (!socket_fd) return failed(errno);
  // A socket address holds 107 bytes; through the descriptor any directory fits.
  const std::string path = fmt::format("/proc/self/fd/{}/{}", directory.get(), name);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) return failed(ENAMETOOLONG);
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  while (connect(socket_fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) {
    if (errno != EINTR) return failed(errno);
  }
  // In a directory that anybody can make, a stranger could listen in tarnd's place.
  ucred peer{};
  socklen_t length = sizeof(peer);
  if (getsockopt(socket_fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0)
    return failed(errno);
  if (geteuid() != 0 && peer.uid != 0 && peer.uid != geteuid())
    return Error{
        -EPERM,
        fmt::format("{} belongs to user {}, who is neither root nor you: set TARN_RUN_DIR to "
                    "your own tarnd's directory",
                    shown, peer.uid)};
  return socket_fd;
}

Result<pid_t> serving_process(const UniqueFd &connection) {
  ucred peer{};
  socklen_t length = sizeof(peer);
  if (getsockopt(connection.get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0)
    return system_error(errno, "cannot ask which process tarnd is");
  if (peer.pid <= 1) return Error{-ESRCH, "tarnd's process is not seen from here"};
  return peer.pid;
}

bool nobody_there(const Error &error) {
  return error.code == -ENOENT || error.code == -ECONNREFUSED;
}

}  // namespace tarn
