// SPDX-License-Identifier: GPL-2.0
#include "mirrord/data_copier.h"

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "mirrord/xattrs.h"

namespace tarn {
namespace {

constexpr std::uint64_t kPiece = std::uint64_t{256} << 10;
constexpr std::size_t kPage = 4096;

/* Reads until the buffer is full or the file ends. */
ssize_t read_at(int file, std::byte *to, std::size_t size, std::uint64_t at) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t got = pread(file, to + done, size - done, static_cast<off_t>(at + done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return got;
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  return static_cast<ssize_t>(done);
}

}  // namespace

struct DataCopier::Job {
  const Files &files;
  std::uint64_t at;
  std::uint64_t size;   /* the replica's now */
  bool compare = true;  /* the replica's file can be read */
  bool changed = false; /* it was written to */
};

void DataCopier::begin_change(Job &job) {
  // The kernel removes it at a write, but not always for a hole. Mostly there is none.
  if (!std::exchange(job.changed, true) && job.files.size > 0)
    static_cast<void>(fremovexattr(job.files.replica, kCapability));
}

Result<void> DataCopier::write(Job &job, std::uint64_t at, Bytes data) {
  begin_change(job);
  while (!data.empty()) {
    const ssize_t done =
        pwrite(job.files.replica, data.data(), data.size(), static_cast<off_t>(at));
    if (done < 0 && errno == EINTR) continue;
    if (done < 0) return system_error(errno, "the replica's file cannot be written");
    at += static_cast<std::uint64_t>(done);
    written_ += static_cast<std::uint64_t>(done);
    data = data.subspan(static_cast<std::size_t>(done));
    job.size = std::max(job.size, at);
  }
  return {};
}

Result<void> DataCopier::write_differences(Job &job, std::uint64_t at, Bytes data) {
  std::size_t both = 0;  // bytes that the replica has too
  if (job.compare && at < job.size) {
    mine_.resize(kPiece);
    const auto most = static_cast<std::size_t>(std::min<std::uint64_t>(data.size(), job.size - at));
    const ssize_t got = read_at(job.files.replica, mine_.data(), most, at);
    if (got < 0 && errno != EBADF) return system_error(errno, "the replica's file cannot be read");
    job.compare = got >= 0;
    both = got < 0 ? 0 : static_cast<std::size_t>(got);
  }
  const auto differs = [&](std::size_t page) {
    const std::size_t length = std::min(kPage, data.size() - page);
    return page + length > both || std::memcmp(data.data() + page, mine_.data() + page, length);
  };
  for (std::size_t page = 0; page < data.size(); page += kPage) {
    if (!differs(page)) continue;
    const std::size_t first = page;
    while (page < data.size() && differs(page)) page += kPage;
    const Bytes run = data.subspan(first, std::min(page, data.size()) - first);
    if (const auto written = write(job, at + first, run); !written) return written;
  }
  return {};
}

/* False: the source ends here. */
Result<bool> DataCopier::copy_piece(Job &job, std::uint64_t end) {
  theirs_.resize(kPiece);
  const auto most = static_cast<std::size_t>(std::min(kPiece - job.at % kPiece, end - job.at));
  const auto got = job.files.source.read(job.at, std::span(theirs_.data(), most));
  if (!got) return got.error();
  const std::size_t length = *got;
  if (length == 0) return false;
  read_ += length;
  const auto written = write_differences(job, job.at, Bytes(theirs_.data(), length));
  if (!written) return written.error();
  job.at += length;
  if (const auto spent = pace_.spend(length); !spent) return spent.error();
  return true;
}

Result<void> DataCopier::make_hole(Job &job, std::uint64_t from, std::uint64_t to) {
  to = std::min(to, job.size);
  if (from >= to) return {};
  const int file = job.files.replica;
  const off_t data = lseek(file, static_cast<off_t>(from), SEEK_DATA);
  if (data < 0 && errno == ENXIO) return {};
  if (data >= 0) from = static_cast<std::uint64_t>(data);
  if (from >= to) return {};
  begin_change(job);
  if (fallocate(file, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(from),
                static_cast<off_t>(to - from)) == 0)
    return {};
  const std::vector<std::byte> zeros(kPiece);
  while (from < to) {
    const auto most = static_cast<std::size_t>(std::min(kPiece, to - from));
    const auto written = write_differences(job, from, Bytes(zeros.data(), most));
    if (!written) return written;
    from += most;
    if (const auto spent = pace_.spend(most); !spent) return spent;
  }
  return {};
}

Result<std::uint64_t> DataCopier::copy(const Files &files, std::uint64_t from, std::uint64_t to) {
  Job job{files, from, files.size};
  while (job.at < to) {
    const auto data = files.source.data_from(job.at, to);
    if (!data) return data.error();
    if (const auto made = make_hole(job, job.at, data->begin); !made) return made.error();
    job.at = data->begin;
    if (job.at >= to) break;
    if (data->end <= job.at) continue;  // it has changed since
    const auto more = copy_piece(job, data->end);
    if (!more) return more.error();
    if (!*more) break;
  }
  return job.size;
}

}  // namespace tarn
