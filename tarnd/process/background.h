/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Runs tarnd in the background. The parent waits until its child is ready or has failed, prints the
 * reason of a failure on its terminal and exits with the matching status.
 *
 * Call it before the first thread starts.
 */
#ifndef TARND_PROCESS_BACKGROUND_H
#define TARND_PROCESS_BACKGROUND_H

#include <string>

#include "base/result.h"
#include "base/unique_fd.h"

namespace tarnd {

/* The child's pipe to the waiting parent. In the foreground there is none and the calls do
 * nothing. */
class ReadyPipe {
 public:
  ReadyPipe() = default;
  explicit ReadyPipe(tarn::UniqueFd pipe) : pipe_(std::move(pipe)) {}

  void ready() { send(kReady); }
  void failed(const std::string &reason) { send(reason); }

  static constexpr char kReady[] = "+";

 private:
  void send(const std::string &text);

  tarn::UniqueFd pipe_;
};

/*
 * Closes inherited descriptors except the standard ones; call it before the program opens its own.
 * They would hold a lock, keep the reader of a pipe waiting or a file system busy as long as this
 * program runs.
 */
void close_inherited_descriptors();

/*
 * Forks; does not return in the parent. The child gets its own session, /dev/null as its standard
 * input, and the truncated file `log` as its output.
 */
tarn::Result<ReadyPipe> go_to_background(const std::string &log);

}  // namespace tarnd

#endif
