// SPDX-License-Identifier: GPL-2.0
#include "client/paths.h"

#include <cerrno>
#include <filesystem>

#include "base/text.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

std::string without_end_slash(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

Result<std::string> whole_path(const std::string &path) {
  if (path.empty()) return Error{-EINVAL, "a path is empty: name a directory"};
  std::error_code error;
  const fs::path absolute = fs::absolute(path, error);
  fs::path resolved;
  if (!error) resolved = fs::weakly_canonical(absolute, error);
  if (error) return system_error(error.value(), "cannot resolve the path " + printable(path));
  return without_end_slash(resolved.string());
}

std::string whole_mountpoint(const std::string &path) {
  std::error_code error;
  if (const fs::path whole = fs::canonical(path, error); !error) return whole.string();
  const fs::path plain = without_end_slash(fs::absolute(path, error).lexically_normal().string());
  const fs::path parent = fs::canonical(plain.parent_path(), error);
  return error ? plain.string() : (parent / plain.filename()).string();
}

std::optional<std::string> path_below(std::string_view directory, std::string_view path) {
  if (directory == "/") directory = "";
  if (!path.starts_with(directory)) return std::nullopt;
  path.remove_prefix(directory.size());
  if (path.empty()) return std::string();
  if (path[0] != '/') return std::nullopt;
  return std::string(path.substr(1));
}

std::optional<std::string> meant_lower_path(const std::vector<Mount> &mounts,
                                            const std::string &path) {
  const Mount *innermost = nullptr;
  for (const Mount &mount : mounts) {
    if (path_below(mount.lower, path)) return std::nullopt;
    if (path_below(mount.mountpoint, path) &&
        (!innermost || mount.mountpoint.size() >= innermost->mountpoint.size()))
      innermost = &mount;
  }
  if (!innermost) return std::nullopt;
  const std::string below = *path_below(innermost->mountpoint, path);
  return below.empty() ? innermost->lower : without_end_slash(innermost->lower) + "/" + below;
}

}  // namespace tarn
