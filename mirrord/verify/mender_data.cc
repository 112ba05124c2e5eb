// SPDX-License-Identifier: GPL-2.0
// The data of a file: only ranges that differ are written, and zeros are not stored anew.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>

#include "base/text.h"
#include "mirrord/file_status.h"
#include "mirrord/verify/mender.h"

namespace tarn {
namespace {

/* The unit in which ranges of a block that differ are told. */
constexpr std::size_t kPiece = 4096;
/* What both sides hash before what differs is copied. */
constexpr std::uint64_t kWindow = 64 * kBlockSize;

/* Reads until the buffer is full; what lies behind the file's end is zero. */
Result<void> read_full(int fd, char *buffer, std::size_t length, std::uint64_t offset) {
  std::size_t done = 0;
  while (done < length) {
    const ssize_t got = pread(fd, buffer + done, length - done, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return plain_error(errno);
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  memset(buffer + done, 0, length - done);
  return {};
}

Result<void> write_full(int fd, const char *bytes, std::size_t length, std::uint64_t offset) {
  while (length > 0) {
    const ssize_t put = pwrite(fd, bytes, length, static_cast<off_t>(offset));
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return plain_error(errno);
    bytes += put;
    length -= static_cast<std::size_t>(put);
    offset += static_cast<std::uint64_t>(put);
  }
  return {};
}

/* Takes from the file what must not cover other bytes: set-user-id bits, a capability, and the
 * rights that the source's file does not give. */
Result<void> close_for_writing(int file, const struct stat &status, const TreeEntry &source) {
  const std::uint32_t mode = status.st_mode & kModeBits, kept = mode & source.mode & 01777;
  if (kept != mode && fchmod(file, kept) != 0) return plain_error(errno);
  if (fremovexattr(file, "security.capability") != 0 && errno != ENODATA && errno != EOPNOTSUPP)
    return plain_error(errno);
  return {};
}

/* Opens the file for reading and writing; a file of ours whose mode forbids it gets another one,
 * which copy_attributes() mends. */
Result<UniqueFd> open_writable(const Place &place) {
  auto file = open_object(place, O_RDWR);
  if (file || file.error().code != -EACCES) return file;
  auto readable = open_object(place, O_RDONLY);
  if (!readable) return file;
  struct stat status;
  if (fstat(readable->get(), &status) != 0 || status.st_uid != geteuid() ||
      fchmod(readable->get(), (status.st_mode & kModeBits) | S_IRUSR | S_IWUSR) != 0)
    return file;
  return open_object(place, O_RDWR);
}

}  // namespace

Result<void> Mender::copy_data(const Place &place, const std::string &path,
                               const TreeEntry &source) {
  const auto ours = source_.open_file(path);
  if (!ours) return ours.error();
  auto theirs = open_writable(place);
  if (!theirs) return theirs.error();
  struct stat status;
  if (fstat(theirs->get(), &status) != 0) return plain_error(errno);
  const auto before = static_cast<std::uint64_t>(status.st_size);
  if (before != source.size) {
    auto closed = close_for_writing(theirs->get(), status, source);
    if (!closed) return closed;
    if (ftruncate(theirs->get(), static_cast<off_t>(source.size)) != 0) return plain_error(errno);
  }
  Copy copy{**ours, theirs->get(), source};
  auto copied = copy_ranges(copy, path, std::min(before, source.size));
  if (!copied) return copied;
  auto punched = punch_holes(path, theirs->get());
  if (!punched) return punched;
  if (const int err = theirs->close(); err != 0) return plain_error(err);
  return {};
}

/* Of the first `shared` bytes only blocks with other hashes are read by the copy; the rest of the
 * target is zero. */
Result<void> Mender::copy_ranges(Copy &copy, const std::string &path, std::uint64_t shared) {
  const std::string directory = parent_of(path);
  const std::string name = path.substr(directory.empty() ? 0 : directory.size() + 1);
  const std::uint64_t size = copy.source.size;
  for (std::uint64_t at = 0; at < size; at += kWindow) {
    auto reported = report_("copying " + printable(path));
    if (!reported) return reported;
    const std::uint64_t end = std::min(size, at + kWindow);
    std::vector<BlockHashes> ours(1), theirs(1);
    if (at < shared) {
      const std::uint64_t length = std::min(shared, end) - at;
      thread_.both(
          [&] {
            ours = source_.block_hashes(directory, {{name, at, length}});
          },
          [&] {
            theirs = target_.block_hashes(directory, {{name, at, length}});
          });
    }
    const auto &mine = ours.front().hashes, &other = theirs.front().hashes;
    for (std::uint64_t block = at, i = 0; block < end; block += kBlockSize, ++i) {
      const std::uint64_t length = std::min(kBlockSize, end - block);
      // The last shared block may be hashed in part only.
      if (block + length <= shared && i < mine.size() && i < other.size() && mine[i] == other[i])
        continue;
      auto copied = copy_block(copy, block, length);
      if (!copied) return copied;
    }
  }
  return {};
}

/* Writes the pieces of the block that differ. */
Result<void> Mender::copy_block(Copy &copy, std::uint64_t offset, std::uint64_t length) {
  const auto got = copy.from.read(offset, std::as_writable_bytes(std::span(ours_).first(length)));
  if (!got) return got.error();
  std::fill_n(ours_.begin() + static_cast<std::ptrdiff_t>(*got), length - *got, '\0');
  const auto read = read_full(copy.to, theirs_.data(), length, offset);
  if (!read) return read;
  const auto differs = [&](std::size_t at) {
    return at < length && memcmp(&ours_[at], &theirs_[at], std::min(kPiece, length - at)) != 0;
  };
  for (std::size_t at = 0; at < length; at += kPiece) {
    if (!differs(at)) continue;
    std::size_t end = at;
    while (differs(end)) end += kPiece;
    end = std::min<std::size_t>(end, length);
    if (!copy.closed) {
      struct stat status;
      if (fstat(copy.to, &status) != 0) return plain_error(errno);
      auto done = close_for_writing(copy.to, status, copy.source);
      if (!done) return done;
      copy.closed = true;
    }
    auto written = write_full(copy.to, &ours_[at], end - at, offset + at);
    if (!written) return written;
    at = end;
  }
  return {};
}

/* Gives back the space of zeros that are a hole at the source. */
Result<void> Mender::punch_holes(const std::string &path, int to) {
  const auto holes = source_.holes(path);
  if (!holes) return holes.error();
  for (const Hole &hole : *holes) {
    const std::uint64_t end = hole.offset + hole.length;
    for (std::uint64_t offset = hole.offset; offset < end;) {
      const off_t data = lseek(to, static_cast<off_t>(offset), SEEK_DATA);
      if (data < 0 || static_cast<std::uint64_t>(data) >= end) break;
      offset = static_cast<std::uint64_t>(data);
      const std::size_t part = std::min(kBlockSize, end - offset);
      if (const auto read = read_full(to, theirs_.data(), part, offset); !read) return read;
      const bool zero = std::all_of(theirs_.begin(), theirs_.begin() + static_cast<off_t>(part),
                                    [](char byte) { return byte == 0; });
      if (zero && fallocate(to, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                            static_cast<off_t>(offset), static_cast<off_t>(part)) != 0) {
        // A file system without holes: that is a difference, which is reported as such.
        if (errno == EOPNOTSUPP) return {};
        return plain_error(errno);
      }
      offset += part;
    }
  }
  return {};
}

}  // namespace tarn
