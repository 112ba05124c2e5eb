/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Copies data of a file of the source to an open one and writes only what differs: both are read,
 * in pieces, and compared by pages. Holes of the source stay holes, and become holes where the
 * replica has data. One thread, except that any thread may read the counters.
 */
#ifndef TARN_MIRRORD_DATA_COPIER_H
#define TARN_MIRRORD_DATA_COPIER_H

#include <atomic>
#include <cstdint>
#include <vector>

#include "base/result.h"
#include "client/messages.h"
#include "mirrord/pace.h"
#include "mirrord/source.h"

namespace tarn {

class DataCopier {
 public:
  Pace &pace() { return pace_; }

  /* Bytes read from source files, and bytes written to the replica's; a hole counts as none. */
  std::uint64_t bytes_read() const { return read_; }
  std::uint64_t bytes_written() const { return written_; }

  struct Files {
    SourceFile &source;
    int replica;        /* open for writing, and for reading if its data is to be compared */
    std::uint64_t size; /* the replica's */
  };
  /* Makes bytes `from` to `to` equal, as far as the source has them. Does not write a hole at the
   * end: returns the replica's size, which may be smaller than the source's. The capability of a
   * changed file is removed. */
  Result<std::uint64_t> copy(const Files &files, std::uint64_t from, std::uint64_t to);

 private:
  struct Job;
  Result<bool> copy_piece(Job &job, std::uint64_t end);
  Result<void> write_differences(Job &job, std::uint64_t at, Bytes data);
  Result<void> write(Job &job, std::uint64_t at, Bytes data);
  static void begin_change(Job &job);
  Result<void> make_hole(Job &job, std::uint64_t from, std::uint64_t to);

  Pace pace_;
  std::vector<std::byte> theirs_, mine_; /* pieces */
  std::atomic<std::uint64_t> read_ = 0;
  std::atomic<std::uint64_t> written_ = 0;
};

}  // namespace tarn

#endif
