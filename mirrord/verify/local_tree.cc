// SPDX-License-Identifier: GPL-2.0
#include "mirrord/verify/local_tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string_view>

#include "base/text.h"
#include "mirrord/directory_walk.h"
#include "mirrord/local_source.h"
#include "mirrord/verify/tree_entry.h"

namespace tarn {
namespace {

/* Fails only if there is no such object. */
Result<TreeEntry> read_entry(const Place &place) {
  struct stat status;
  if (fstatat(place.directory.get(), place.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
    return plain_error(errno);
  TreeEntry entry = entry_of(status);
  if (S_ISLNK(status.st_mode)) {
    const auto text = read_link_text(place);
    if (text) entry.text = hash_of(*text);
    if (!text) entry.error = -text.error().code;
  }
  const auto attributes = read_attributes(place);
  if (attributes) entry.attributes = hash_of(*attributes);
  if (!attributes) entry.error = -attributes.error().code;
  return entry;
}

/* Is all of the range in the page cache? */
bool is_cached(int fd, char *buffer, std::size_t length, std::uint64_t offset) {
#ifdef RWF_NOWAIT
  iovec part{buffer, length};
  return preadv2(fd, &part, 1, static_cast<off_t>(offset), RWF_NOWAIT) ==
         static_cast<ssize_t>(length);
#else
  (void)fd, (void)buffer, (void)length, (void)offset;
  return false;
#endif
}

/* Reads until the buffer is full or the file ends. Returns the length, or the negative error. */
ssize_t read_block(int fd, char *buffer, std::size_t length, std::uint64_t offset) {
  std::size_t done = 0;
  while (done < length) {
    const ssize_t got = pread(fd, buffer + done, length - done, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return -errno;
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  return static_cast<ssize_t>(done);
}

}  // namespace

Result<LocalTree> LocalTree::open(const std::string &directory) {
  UniqueFd root(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!root) return system_error(errno, "cannot open the directory " + printable(directory));
  return LocalTree(std::move(root));
}

Result<Listing> LocalTree::list(const std::string &directory) {
  auto opened = open_directory(root_.get(), directory);
  if (!opened) return opened.error();
  Place place{std::move(*opened), "."};
  auto readable = open_object(place, O_RDONLY | O_DIRECTORY);
  if (!readable) return readable.error();
  auto names = directory_entries(std::move(*readable));
  if (!names) return plain_error(-names.error().code);
  std::sort(names->begin(), names->end(),
            [](const auto &a, const auto &b) { return a.name < b.name; });
  Listing listing;
  listing.entries.reserve(names->size());
  for (DirectoryEntry &name : *names) {
    place.name = std::move(name.name);
    auto entry = read_entry(place);
    if (!entry && means_absent(-entry.error().code)) continue;  // removed since
    if (!entry) return entry.error();
    entry->name = std::move(place.name);
    listing.entries.push_back(std::move(*entry));
  }
  const auto hash = hash_of(listing.entries);
  if (!hash) return hash.error();
  listing.hash = *hash;
  return listing;
}

Result<std::optional<TreeEntry>> LocalTree::find(const std::string &path) {
  const auto found = [&]() -> Result<TreeEntry> {
    const auto place = place_below(root_.get(), path);
    if (!place) return place.error();
    return read_entry(*place);
  }();
  if (found) return std::optional<TreeEntry>(*found);
  if (means_absent(-found.error().code)) return std::optional<TreeEntry>();
  return found.error();
}

std::vector<BlockHashes> LocalTree::block_hashes(const std::string &directory,
                                                 const std::vector<Slice> &slices) {
  auto opened = open_directory(root_.get(), directory);
  if (!opened)
    return std::vector<BlockHashes>(slices.size(), BlockHashes{{}, {}, -opened.error().code});
  Place place{std::move(*opened), ""};
  std::vector<BlockHashes> all;
  all.reserve(slices.size());
  for (const Slice &slice : slices) all.push_back(hash_slice(place, slice));
  return all;
}

BlockHashes LocalTree::hash_slice(Place &place, const Slice &slice) {
  BlockHashes result;
  place.name = slice.name;
  const auto file = open_object(place, O_RDONLY);
  if (!file) {
    result.error = -file.error().code;
    return result;
  }
  struct stat before, after;
  if (fstat(file->get(), &before) != 0) result.error = errno;
  // What is read ahead of this slice reaches its first blocks, so the last one is asked for.
  const std::uint64_t end = slice.offset + slice.length;
  const std::uint64_t last = (end - 1) / kBlockSize * kBlockSize;
  const bool keep = slice.length > 0 && is_cached(file->get(), block_.data(), end - last, last);
  for (std::uint64_t at = slice.offset; at < end && result.error == 0; at += kBlockSize) {
    const std::size_t length = std::min(kBlockSize, end - at);
    const ssize_t got = read_block(file->get(), block_.data(), length, at);
    if (got < 0) result.error = static_cast<int>(-got);
    if (got <= 0) break;
    result.hashes.push_back(
        hash_of(std::string_view(block_.data(), static_cast<std::size_t>(got))));
  }
  // An error means only that the pages stay.
  if (!keep)
    static_cast<void>(posix_fadvise(file->get(), static_cast<off_t>(slice.offset),
                                    static_cast<off_t>(slice.length), POSIX_FADV_DONTNEED));
  if (result.error == 0 && fstat(file->get(), &after) != 0) result.error = errno;
  if (result.error == 0 && version_of(before) == version_of(after))
    result.version = version_of(after);
  return result;
}

Result<std::uint64_t> LocalTree::hole_bytes(const std::string &path) {
  const auto all = holes(path);
  if (!all) return all.error();
  std::uint64_t bytes = 0;
  for (const Hole &hole : *all) bytes += hole.length;
  return bytes;
}

Result<std::vector<std::string>> LocalTree::names(const std::string &directory) {
  auto opened = open_directory(root_.get(), directory);
  if (!opened) return opened.error();
  auto readable = open_object(Place{std::move(*opened), "."}, O_RDONLY | O_DIRECTORY);
  if (!readable) return readable.error();
  auto entries = directory_entries(std::move(*readable));
  if (!entries) return plain_error(-entries.error().code);
  std::vector<std::string> names;
  for (DirectoryEntry &entry : *entries) names.push_back(std::move(entry.name));
  return names;
}

Result<std::string> LocalTree::link_text(const std::string &path) {
  const auto place = place_below(root_.get(), path);
  if (!place) return place.error();
  return read_link_text(*place);
}

Result<Attributes> LocalTree::attributes(const std::string &path) {
  const auto place = place_below(root_.get(), path);
  if (!place) return place.error();
  return read_attributes(*place);
}

Result<std::vector<Hole>> LocalTree::holes(const std::string &path) {
  const auto place = place_below(root_.get(), path);
  if (!place) return place.error();
  const auto file = open_object(*place, O_RDONLY);
  if (!file) return file.error();
  struct stat status;
  if (fstat(file->get(), &status) != 0) return plain_error(errno);
  const auto size = static_cast<std::uint64_t>(status.st_size);
  std::vector<Hole> holes;
  for (std::uint64_t at = 0; at < size;) {
    const off_t begin = lseek(file->get(), static_cast<off_t>(at), SEEK_HOLE);
    if (begin < 0 && errno == ENXIO) break;  // the file became shorter
    if (begin < 0) return plain_error(errno);
    const off_t end = lseek(file->get(), begin, SEEK_DATA);
    if (end < 0 && errno != ENXIO) return plain_error(errno);
    const auto from = static_cast<std::uint64_t>(begin);
    const std::uint64_t until = end < 0 ? size : std::min(static_cast<std::uint64_t>(end), size);
    if (until >= from + kHoleSize) holes.push_back({from, until - from});
    at = std::max(until, at + 1);
  }
  return holes;
}

Result<std::unique_ptr<SourceFile>> LocalTree::open_file(const std::string &path) {
  const auto place = place_below(root_.get(), path);
  if (!place) return place.error();
  auto file = open_object(*place, O_RDONLY);
  if (!file) return file.error();
  return read_local_file(std::move(*file));
}

}  // namespace tarn
