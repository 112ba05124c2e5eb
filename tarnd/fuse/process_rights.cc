// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/process_rights.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <new>

#include <fmt/format.h>

#include "base/text_file.h"

namespace tarnd {

// Reads a file of /proc; empty if its process has ended. Out of descriptors is an error, as the
// process may have rights.
static std::string read_proc(const std::string &path) {
  auto text = tarn::read_text(path, path);
  if (text) return std::move(*text);
  const int err = -text.error().code;
  if (err == EMFILE || err == ENFILE || err == ENOMEM) throw std::bad_alloc();
  return {};
}

// The value of a field, to the end of its line.
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

// The target of a symbolic link of /proc; empty if it cannot be read.
static std::string read_link(const std::string &path) {
  char target[64];
  const ssize_t length = readlink(path.c_str(), target, sizeof target);
  return length > 0 ? std::string(target, static_cast<size_t>(length)) : std::string();
}

// Does the process's user namespace map users and groups as ours does? Mostly it is ours, which is
// told by one system call; without the right to read the link the maps are compared.
static bool has_our_id_maps(const std::string &proc) {
  static const std::string ours = read_link("/proc/self/ns/user");
  if (!ours.empty() && read_link(proc + "/ns/user") == ours) return true;
  static const std::string users = read_proc("/proc/self/uid_map");
  static const std::string groups = read_proc("/proc/self/gid_map");
  return read_proc(proc + "/uid_map") == users && read_proc(proc + "/gid_map") == groups;
}

ProcessRights process_rights(int tid) {
  const std::string proc = fmt::format("/proc/{}", tid);
  ProcessRights rights = parse_status(read_proc(proc + "/status"));
  if (rights.capabilities != 0 && !has_our_id_maps(proc)) rights.capabilities = 0;
  return rights;
}

}  // namespace tarnd
