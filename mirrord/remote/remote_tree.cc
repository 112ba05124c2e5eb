// SPDX-License-Identifier: GPL-2.0
#include "mirrord/remote/remote_tree.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "mirrord/verify/tree_entry.h"

namespace tarn {

Result<Source::Object> RemoteTree::object_at(const std::string &path) {
  auto object = source_.find(path);
  if (!object) return object.error();
  if (!*object) return plain_error(ENOENT);
  return std::move(**object);
}

Result<Attributes> RemoteTree::attributes_of(const Source::Object &object) {
  const auto xattrs = source_.xattrs(object);
  if (!xattrs) return xattrs.error();
  Attributes compared;
  if (!*xattrs) return compared;
  for (const auto &[name, value] : **xattrs) {
    if (is_compared_attribute(name)) compared.emplace(name, value);
  }
  return compared;
}

TreeEntry RemoteTree::entry_of_object(const Source::Object &object) {
  TreeEntry entry = entry_of(object.status);
  if (S_ISLNK(object.status.st_mode)) entry.text = hash_of(object.target);
  const auto attributes = attributes_of(object);
  if (attributes) entry.attributes = hash_of(*attributes);
  if (!attributes) entry.error = -attributes.error().code;
  return entry;
}

Result<Listing> RemoteTree::list(const std::string &directory) {
  const auto object = object_at(directory);
  if (!object) return object.error();
  if (!S_ISDIR(object->status.st_mode)) return plain_error(ENOTDIR);
  const auto names = source_.entries(*object);
  if (!names) return names.error();
  Listing listing;
  for (const DirectoryEntry &name : *names) {
    const auto child = source_.child(*object, name);
    if (!child) return child.error();
    if (!*child) continue;  // removed since
    listing.entries.push_back(entry_of_object(**child));
    listing.entries.back().name = name.name;
  }
  const auto hash = hash_of(listing.entries);
  if (!hash) return hash.error();
  listing.hash = *hash;
  return listing;
}

Result<std::optional<TreeEntry>> RemoteTree::find(const std::string &path) {
  const auto object = source_.find(path);
  if (!object) return object.error();
  if (!*object) return std::optional<TreeEntry>();
  return std::optional<TreeEntry>(entry_of_object(**object));
}

std::vector<BlockHashes> RemoteTree::block_hashes(const std::string &directory,
                                                  const std::vector<Slice> &slices) {
  std::vector<BlockHashes> all;
  all.reserve(slices.size());
  for (const Slice &slice : slices) all.push_back(hash_slice(join(directory, slice.name), slice));
  return all;
}

/* In as many questions as it takes; each has to see the same version of the file. */
BlockHashes RemoteTree::hash_slice(const std::string &path, const Slice &slice) {
  BlockHashes result;
  const std::uint64_t end = slice.offset + slice.length;
  for (std::uint64_t at = slice.offset; at < end || result.hashes.empty();) {
    std::vector<std::byte> message;
    auto part = conversation_.ask<remote::HashAnswer>(remote::HashQuestion{path, at, end}, message);
    if (!part) {
      result.error = -part.error().code;
      return result;
    }
    const bool same = at == slice.offset || result.version == part->version;
    result.version = same ? part->version : Version{};
    if (part->hashes.empty()) break;  // the file's end
    at += part->hashes.size() * kBlockSize;
    std::move(part->hashes.begin(), part->hashes.end(), std::back_inserter(result.hashes));
  }
  return result;
}

Result<std::uint64_t> RemoteTree::hole_bytes(const std::string &path) {
  const auto all = holes(path);
  if (!all) return all.error();
  std::uint64_t bytes = 0;
  for (const Hole &hole : *all) bytes += hole.length;
  return bytes;
}

Result<std::vector<std::string>> RemoteTree::names(const std::string &directory) {
  const auto object = object_at(directory);
  if (!object) return object.error();
  if (!S_ISDIR(object->status.st_mode)) return plain_error(ENOTDIR);
  auto entries = source_.entries(*object);
  if (!entries) return entries.error();
  std::vector<std::string> names;
  for (DirectoryEntry &entry : *entries) names.push_back(std::move(entry.name));
  return names;
}

Result<std::string> RemoteTree::link_text(const std::string &path) {
  auto object = object_at(path);
  if (!object) return object.error();
  if (!S_ISLNK(object->status.st_mode)) return plain_error(EINVAL);
  return std::move(object->target);
}

Result<Attributes> RemoteTree::attributes(const std::string &path) {
  const auto object = object_at(path);
  if (!object) return object.error();
  return attributes_of(*object);
}

Result<std::vector<Hole>> RemoteTree::holes(const std::string &path) {
  std::vector<Hole> all;
  for (bool more = true; more;) {
    const std::uint64_t from = all.empty() ? 0 : all.back().offset + all.back().length;
    std::vector<std::byte> message;
    auto answer =
        conversation_.ask<remote::HolesAnswer>(remote::HolesQuestion{path, from}, message);
    if (!answer) return answer.error();
    const bool onward = answer->holes.empty() || answer->holes.front().offset >= from;
    if (!onward || (answer->more && answer->holes.empty())) return plain_error(EPROTO);
    all.insert(all.end(), answer->holes.begin(), answer->holes.end());
    more = answer->more;
  }
  return all;
}

Result<std::unique_ptr<SourceFile>> RemoteTree::open_file(const std::string &path) {
  const auto object = object_at(path);
  if (!object) return object.error();
  if (!S_ISREG(object->status.st_mode)) return plain_error(ELOOP);
  return source_.open(*object);
}

}  // namespace tarn
