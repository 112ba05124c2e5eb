// SPDX-License-Identifier: GPL-2.0
#include "mirrord/directory_walk.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "base/text.h"

namespace tarn {
namespace {

constexpr int kFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

int open_at_once(int root, const std::string &path) {
  open_how how{};
  how.flags = kFlags;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  return static_cast<int>(syscall(SYS_openat2, root, path.c_str(), &how, sizeof(how)));
}

struct CloseDirectory {
  void operator()(DIR *directory) const { closedir(directory); }
};

int open_step_by_step(int root, std::string_view path) {
  UniqueFd here(openat(root, ".", kFlags));
  while (here && !path.empty()) {
    const std::string name(take_until(path, '/'));
    here = UniqueFd(openat(here.get(), name.c_str(), kFlags));
  }
  return here ? fcntl(here.get(), F_DUPFD_CLOEXEC, 0) : -1;
}

}  // namespace

bool has_path_descriptors() {
  static const bool known = [] {
    const UniqueFd root(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    char byte;
    return root && read(root.get(), &byte, 1) < 0 && errno == EBADF;  // else EISDIR
  }();
  return known;
}

Result<std::vector<DirectoryEntry>> directory_entries(UniqueFd directory) {
  const std::unique_ptr<DIR, CloseDirectory> open(fdopendir(directory.get()));
  if (!open) return system_error(errno, "cannot list a directory");
  directory.release();
  std::vector<DirectoryEntry> entries;
  for (;;) {
    errno = 0;
    const dirent *entry = readdir(open.get());
    if (!entry && errno != 0) return system_error(errno, "cannot list a directory");
    if (!entry) return entries;
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    const bool directory = entry->d_type == DT_DIR || entry->d_type == DT_UNKNOWN;
    entries.push_back({std::string(name), entry->d_ino, directory, entry->d_type == DT_REG});
  }
}

bool plain_relative(std::string_view path) {
  while (!path.empty()) {
    const std::string_view name = path.substr(0, path.find('/'));
    if (name.empty() || name == "." || name == "..") return false;
    const bool more = name.size() < path.size();
    path.remove_prefix(name.size() + more);
    if (more && path.empty()) return false;
  }
  return true;
}

Result<UniqueFd> open_directory_below(int root, const std::string &path, WalkMethod method) {
  if (!plain_relative(path)) return system_error(EXDEV, printable(path));
  int fd = -1;
  if (method == WalkMethod::kBest) fd = open_at_once(root, path.empty() ? "." : path);
  // Kernels before 5.6 do not know the call; some sandboxes forbid it.
  if (method == WalkMethod::kStepByStep || (fd < 0 && (errno == ENOSYS || errno == EPERM)))
    fd = open_step_by_step(root, path);
  if (fd < 0) return system_error(errno, printable(path));
  return UniqueFd(fd);
}

}  // namespace tarn
