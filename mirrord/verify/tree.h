/* SPDX-License-Identifier: GPL-2.0 */
/*
 * One side of a comparison: a tree of hashes. A directory's hash is over its sorted entries, an
 * entry's over its attributes, and a file's data has one hash for each block. So equal directories
 * and blocks are told by a few bytes, whether the sides are on one host or two.
 *
 * A directory's hash does not cover what lies below its entries: while the trees change, the hash
 * of a large tree would never be that of one moment, and each level would be read once more for
 * each level above it.
 *
 * The side is used by one thread at a time. Errors have the system's error as code.
 */
#ifndef TARN_MIRRORD_VERIFY_TREE_H
#define TARN_MIRRORD_VERIFY_TREE_H

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/result.h"
#include "mirrord/verify/place.h"

namespace tarn {

inline constexpr std::uint64_t kBlockSize = 1 << 20;

/* The smallest hole that counts. */
inline constexpr std::uint64_t kHoleSize = 64 << 10;

/* XXH3-128. */
struct Hash {
  std::uint64_t low = 0, high = 0;
  bool operator==(const Hash &) const = default;
};

/* An object in one state: any change of it changes this. All zero: there is no object. */
struct Version {
  std::uint64_t file_system = 0, inode = 0;
  std::int64_t seconds = 0, nanoseconds = 0; /* the change time */
  bool operator==(const Version &) const = default;
  /* The object without its state. */
  Version object() const { return {file_system, inode, 0, 0}; }
  bool is_object(const Version &other) const { return object() == other.object(); }
};

struct ObjectHash {
  std::size_t operator()(const Version &object) const {
    return object.inode * 0x9e3779b97f4a7c15u ^ object.file_system;
  }
};

Version version_of(const struct stat &status);

struct TreeEntry {
  std::string name;
  std::uint32_t mode; /* with the type */
  std::uint32_t uid, gid;
  std::uint64_t size;      /* of regular files, otherwise 0 */
  std::uint64_t allocated; /* bytes; not part of the hash */
  timespec modified;
  std::uint64_t device; /* of device nodes, otherwise 0 */
  std::uint64_t links;  /* number of names; not part of the hash */
  Version version;      /* not part of the hash */
  Hash text;            /* of symbolic links, otherwise 0 */
  Hash attributes;      /* extended attributes; 0 if there are none */
  int error = 0;        /* why the text or the extended attributes could not be read */
};

struct Listing {
  std::vector<TreeEntry> entries; /* in the order of their names' bytes */
  Hash hash;
};

/* A part of a file. */
struct Slice {
  std::string name;
  std::uint64_t offset; /* a multiple of kBlockSize */
  std::uint64_t length;
};

struct BlockHashes {
  std::vector<Hash> hashes; /* shorter than the slice at the file's end */
  Version version;          /* while they were read; all zero if it changed */
  int error = 0;
};

class Tree {
 public:
  virtual ~Tree() = default;

  virtual Result<Listing> list(const std::string &directory) = 0;
  /* Nothing if there is no such path. The entry's name is unset. */
  virtual Result<std::optional<TreeEntry>> find(const std::string &path) = 0;
  /* One for each slice, of files in the directory. */
  virtual std::vector<BlockHashes> block_hashes(const std::string &directory,
                                                const std::vector<Slice> &slices) = 0;
  /* How many bytes of a file are in holes of 64 KiB or more. */
  virtual Result<std::uint64_t> hole_bytes(const std::string &path) = 0;
};

}  // namespace tarn

#endif
