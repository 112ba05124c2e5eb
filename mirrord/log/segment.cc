// SPDX-License-Identifier: GPL-2.0
#include "mirrord/log/segment.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/text.h"

namespace tarn {
namespace {

/* A quota and a limit of the process are a full disk too. */
int errno_of_space() {
  return errno == EDQUOT || errno == EFBIG ? ENOSPC : errno;
}

/* Linux before 2.6.30 has no pwritev(2). One thread at a time writes a file. */
ssize_t write_vectors(int file, const iovec *vectors, int count, std::uint64_t offset) {
  const ssize_t put = pwritev(file, vectors, count, static_cast<off_t>(offset));
  if (put >= 0 || errno != ENOSYS) return put;
  if (lseek(file, static_cast<off_t>(offset), SEEK_SET) < 0) return -1;
  return writev(file, vectors, count);
}

}  // namespace

std::string shown_segment(const std::string &directory, LogPosition first) {
  return printable(directory + "/" + segment_name(first));
}

Result<UniqueFd> open_segment_file(int directory, LogPosition first, int flags,
                                   const std::string &what) {
  UniqueFd file(
      openat(directory, segment_name(first).c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file) return system_error(errno, what);
  return file;
}

Result<UniqueFd> make_segment_file(int directory, const std::string &name,
                                   const SegmentHeader &header, const std::string &what) {
  UniqueFd file(
      openat(directory, name.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file) return system_error(errno_of_space(), what);
  const Bytes bytes = std::as_bytes(std::span(&header, 1));
  if (const int err = write_pieces(file.get(), std::span(&bytes, 1), 0); err != 0) {
    unlinkat(directory, name.c_str(), 0);
    return system_error(err, what);
  }
  return file;
}

int write_pieces(int file, std::span<const Bytes> pieces, std::uint64_t offset) {
  constexpr std::size_t kFew = 16;
  iovec vectors[kFew];
  std::size_t done = 0; /* of the first piece */
  while (!pieces.empty()) {
    const std::size_t count = std::min(pieces.size(), kFew);
    for (std::size_t i = 0; i < count; ++i) {
      const Bytes piece = pieces[i].subspan(i == 0 ? done : 0);
      vectors[i] = {const_cast<std::byte *>(piece.data()), piece.size()};
    }
    const ssize_t put = write_vectors(file, vectors, static_cast<int>(count), offset);
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return errno_of_space();
    std::size_t left = static_cast<std::size_t>(put);
    if (left == 0 && std::any_of(vectors, vectors + count, [](iovec v) { return v.iov_len > 0; }))
      return EIO;
    offset += left;
    while (!pieces.empty() && left >= pieces.front().size() - done) {
      left -= pieces.front().size() - done;
      pieces = pieces.subspan(1);
      done = 0;
    }
    done += left;
  }
  return 0;
}

}  // namespace tarn
