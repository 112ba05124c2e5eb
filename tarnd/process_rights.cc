// SPDX-License-Identifier: GPL-2.0
#include "tarnd/process_rights.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <new>

#include "tarnd/unique_fd.h"

namespace tarnd {

// All of a file of /proc; empty when there is none, or none any more. Who cannot be looked at for
// want of descriptors is not somebody without rights.
static std::string read_proc(const std::string &path) {
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd && (errno == EMFILE || errno == ENFILE || errno == ENOMEM)) throw std::bad_alloc();
  if (!fd) return {};
  std::string text;
  char part[2048];
  for (;;) {
    const ssize_t n = read(fd.get(), part, sizeof(part));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return {};
    if (n == 0) return text;
    text.append(part, static_cast<size_t>(n));
  }
}

// What stands behind a field's name, to the end of its line.
static std::string field(const std::string &status, const std::string &name) {
  const std::string label = '\n' + name + ':';
  const size_t at = status.find(label);
  if (at == std::string::npos) return {};
  const size_t from = at + label.size();
  return status.substr(from, status.find('\n', from) - from);
}

ProcessRights parse_status(const std::string &status) {
  ProcessRights rights;
  const std::string groups = field(status, "Groups");
  const char *at = groups.c_str();
  for (char *end;; at = end) {
    const unsigned long group = std::strtoul(at, &end, 10);
    if (end == at) break;
    rights.groups.push_back(static_cast<unsigned>(group));
  }
  const std::string effective = field(status, "CapEff");
  rights.capabilities = static_cast<unsigned>(std::strtoull(effective.c_str(), nullptr, 16));
  return rights;
}

// Whether users and groups have the same numbers for it as for this program.
static bool has_our_numbers(const std::string &proc) {
  static const std::string users = read_proc("/proc/self/uid_map");
  static const std::string groups = read_proc("/proc/self/gid_map");
  return read_proc(proc + "/uid_map") == users && read_proc(proc + "/gid_map") == groups;
}

ProcessRights process_rights(int tid) {
  const std::string proc = "/proc/" + std::to_string(tid);
  ProcessRights rights = parse_status(read_proc(proc + "/status"));
  if (rights.capabilities != 0 && !has_our_numbers(proc)) rights.capabilities = 0;
  return rights;
}

}  // namespace tarnd
