// SPDX-License-Identifier: GPL-2.0
#include "mirrord/xattrs.h"

#include <sys/xattr.h>

#include <array>
#include <cerrno>

#include <fmt/format.h>

#include "base/text.h"

namespace tarn {
namespace {

constexpr std::size_t kUsual = 1024; /* bytes of a list or value that one call reads */
constexpr int kTries = 16;           /* for a list or value that grows while it is read */

ssize_t list(const XattrPlace &at, char *names, std::size_t size) {
  if (at.fd >= 0) return flistxattr(at.fd, names, size);
  return at.follow_link ? listxattr(at.path.c_str(), names, size)
                        : llistxattr(at.path.c_str(), names, size);
}

ssize_t get(const XattrPlace &at, const char *name, char *value, std::size_t size) {
  if (at.fd >= 0) return fgetxattr(at.fd, name, value, size);
  return at.follow_link ? getxattr(at.path.c_str(), name, value, size)
                        : lgetxattr(at.path.c_str(), name, value, size);
}

int set(const XattrPlace &at, const char *name, const std::string &value) {
  if (at.fd >= 0) return fsetxattr(at.fd, name, value.data(), value.size(), 0);
  return at.follow_link ? setxattr(at.path.c_str(), name, value.data(), value.size(), 0)
                        : lsetxattr(at.path.c_str(), name, value.data(), value.size(), 0);
}

int remove(const XattrPlace &at, const char *name) {
  if (at.fd >= 0) return fremovexattr(at.fd, name);
  return at.follow_link ? removexattr(at.path.c_str(), name) : lremovexattr(at.path.c_str(), name);
}

/* Reads a text of unknown length by `call(buffer, size)`, which fails with ERANGE if it is longer
 * and returns the length for size 0. Returns an error number. */
template <class Call>
int read_all(const Call &call, std::string &text) {
  std::array<char, kUsual> usual;
  ssize_t length = call(usual.data(), usual.size());
  if (length >= 0) {
    text.assign(usual.data(), static_cast<std::size_t>(length));
    return 0;
  }
  for (int tries = kTries; length < 0 && errno == ERANGE && tries > 0; --tries) {
    const ssize_t needed = call(nullptr, 0);
    if (needed < 0) return errno;
    text.resize(static_cast<std::size_t>(needed) + 1);
    length = call(text.data(), text.size());
  }
  if (length < 0) return errno;
  text.resize(static_cast<std::size_t>(length));
  return 0;
}

std::string name_space(const std::string &name) {
  return name.substr(0, name.find('.'));
}

bool is_copied(std::string_view name) {
  return name.starts_with("user.") || name.starts_with("trusted.") ||
         name.starts_with("security.") || name == kAccessList || name == "system.posix_acl_default";
}

bool is_kernels(std::string_view name) {
  return name == "security.evm" || name == "security.ima" || name == "security.selinux";
}

}  // namespace

Result<Xattrs> read_xattrs(const XattrPlace &object) {
  std::string names;
  const int err =
      read_all([&](char *to, std::size_t size) { return list(object, to, size); }, names);
  if (err == EOPNOTSUPP) return Xattrs();
  if (err != 0) return system_error(err, "the extended attributes cannot be listed");
  Xattrs found;
  for (std::string_view rest = names; !rest.empty();) {
    const std::string name(take_until(rest, '\0'));
    if (!is_copied(name)) continue;
    std::string value;
    const int failed = read_all(
        [&](char *to, std::size_t size) { return get(object, name.c_str(), to, size); }, value);
    if (failed == ENODATA) continue;  // removed since
    if (failed != 0)
      return system_error(failed, "the extended attribute " + printable(name) + " cannot be read");
    found.emplace(name, std::move(value));
  }
  return found;
}

/* Is it to be reported, and how? */
Result<void> XattrCopier::refused(const std::string &name, int err) {
  if (is_kernels(name)) return {};
  const bool unsupported = err == EOPNOTSUPP;
  const std::string space = name_space(name);
  const bool not_ours = err == EPERM && (space == "security" || space == "trusted");
  if (!unsupported && !not_ours)
    return system_error(err, "the extended attribute " + printable(name) + " cannot be changed");
  if (!reported_.insert(space).second) return {};
  return Error{-err, fmt::format("{} {}.* extended attributes, so they are left out: {}",
                                 unsupported ? "the replica's file system has no"
                                             : "there is no permission to set",
                                 space, printable(name))};
}

Result<void> XattrCopier::copy(const XattrPlace &object, const Difference &difference,
                               bool &access_list) {
  Result<void> first;
  const auto note = [&](const std::string &name, int failed) {
    if (failed == 0) {
      access_list = access_list || name == kAccessList;
    } else if (auto error = refused(name, errno); first.ok()) {
      first = std::move(error);
    }
  };
  for (const auto &[name, value] : difference.have) {
    if (difference.wanted.contains(name) || is_kernels(name)) continue;
    const int failed = remove(object, name.c_str());
    note(name, failed != 0 && errno != ENODATA);
  }
  for (const auto &[name, value] : difference.wanted) {
    const auto mine = difference.have.find(name);
    if (mine != difference.have.end() && mine->second == value) continue;
    note(name, set(object, name.c_str(), value));
  }
  return first;
}

}  // namespace tarn
