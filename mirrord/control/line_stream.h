/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Lines over a stream socket, for both ends of the control socket. Nothing waits for a peer longer
 * than it is told to, and no line is longer than its reader allows. Used by one thread at a time.
 *
 * A descriptor `stop` that becomes readable ends every wait: -ECANCELED.
 */
#ifndef TARN_MIRRORD_CONTROL_LINE_STREAM_H
#define TARN_MIRRORD_CONTROL_LINE_STREAM_H

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "base/result.h"
#include "base/unique_fd.h"

namespace tarn {

class LineStream {
 public:
  using Clock = std::chrono::steady_clock;
  /* Nothing: no limit. */
  using Deadline = std::optional<Clock::time_point>;

  explicit LineStream(UniqueFd socket, int stop = -1) : socket_(std::move(socket)), stop_(stop) {}

  /*
   * The next line without its end; nothing at the end of the stream. Errors: -ETIMEDOUT;
   * -ECANCELED; -EMSGSIZE: longer than `limit`; -EBADMSG: the stream ends in the middle of a line;
   * those of recv(2). After an error the stream is of no use for reading.
   */
  Result<std::optional<std::string>> read_line(std::size_t limit, Deadline deadline);

  /* -ETIMEDOUT if the peer takes nothing for as long as `patience`; -ECANCELED; those of send(2).
   */
  Result<void> write(std::string_view line, std::chrono::milliseconds patience);

  /* Writes a line that may be left out: it is if the peer has not taken yet what came before. */
  void offer(std::string_view line);

  /* Has the peer closed its end, or `stop` become readable? A peer that has only ended its own
   * sending is still there. */
  bool gone() const;

 private:
  int wait_for(short events, Deadline deadline) const;
  int send_some();

  UniqueFd socket_;
  int stop_;
  std::string in_, out_;
  std::size_t taken_ = 0; /* of in_, as lines */
};

}  // namespace tarn

#endif
