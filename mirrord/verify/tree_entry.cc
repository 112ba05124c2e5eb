// SPDX-License-Identifier: GPL-2.0
#include "mirrord/verify/tree_entry.h"

#include <xxhash.h>

#include <cerrno>
#include <memory>
#include <string>

namespace tarn {
namespace {

Hash to_hash(XXH128_hash_t hash) {
  return {hash.low64, hash.high64};
}

template <class Number>
void append(std::string &bytes, Number number) {
  bytes.append(reinterpret_cast<const char *>(&number), sizeof(number));
}

void append_text(std::string &bytes, std::string_view text) {
  append(bytes, std::uint64_t{text.size()});
  bytes += text;
}

void append_entry(std::string &bytes, const TreeEntry &entry) {
  append_text(bytes, entry.name);
  for (const std::uint64_t number :
       {std::uint64_t{entry.mode}, std::uint64_t{entry.uid}, std::uint64_t{entry.gid}, entry.size,
        entry.device, static_cast<std::uint64_t>(entry.modified.tv_sec),
        static_cast<std::uint64_t>(entry.modified.tv_nsec), entry.text.low, entry.text.high,
        entry.attributes.low, entry.attributes.high, static_cast<std::uint64_t>(entry.error)})
    append(bytes, number);
}

struct FreeState {
  void operator()(XXH3_state_t *state) const { static_cast<void>(XXH3_freeState(state)); }
};

}  // namespace

Version version_of(const struct stat &status) {
  return {status.st_dev, status.st_ino, status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
}

TreeEntry entry_of(const struct stat &status) {
  TreeEntry entry{};
  entry.mode = status.st_mode;
  entry.uid = status.st_uid;
  entry.gid = status.st_gid;
  entry.allocated = static_cast<std::uint64_t>(status.st_blocks) * 512;
  entry.modified = status.st_mtim;
  entry.links = status.st_nlink;
  entry.version = version_of(status);
  if (S_ISREG(status.st_mode)) entry.size = static_cast<std::uint64_t>(status.st_size);
  if (S_ISBLK(status.st_mode) || S_ISCHR(status.st_mode)) entry.device = status.st_rdev;
  return entry;
}

Hash hash_of(std::string_view bytes) {
  return to_hash(XXH3_128bits(bytes.data(), bytes.size()));
}

Hash hash_of(const Attributes &attributes) {
  if (attributes.empty()) return {};
  std::string bytes;
  for (const auto &[name, value] : attributes) {
    append_text(bytes, name);
    append_text(bytes, value);
  }
  return hash_of(bytes);
}

Result<Hash> hash_of(const std::vector<TreeEntry> &entries) {
  const std::unique_ptr<XXH3_state_t, FreeState> state(XXH3_createState());
  if (!state || XXH3_128bits_reset(state.get()) != XXH_OK) return plain_error(ENOMEM);
  std::string bytes;
  for (const TreeEntry &entry : entries) {
    bytes.clear();
    append_entry(bytes, entry);
    if (XXH3_128bits_update(state.get(), bytes.data(), bytes.size()) != XXH_OK)
      return plain_error(ENOMEM);
  }
  return to_hash(XXH3_128bits_digest(state.get()));
}

}  // namespace tarn
