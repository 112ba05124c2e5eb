/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Going to the background: the program that was started waits until the one in the background is
 * ready or has failed, prints the reason of a failure on its terminal and ends with the matching
 * status.
 *
 * To be called before the first thread starts.
 */
#ifndef TARND_PROCESS_BACKGROUND_H
#define TARND_PROCESS_BACKGROUND_H

#include <string>

#include "base/result.h"
#include "base/unique_fd.h"

namespace tarnd {

/* The background program's line to its starter. Without one (foreground) both calls only return. */
class Starter {
 public:
  Starter() = default;
  explicit Starter(tarn::UniqueFd pipe) : pipe_(std::move(pipe)) {}

  void ready() { tell(kReady); }
  void failed(const std::string &reason) { tell(reason); }

  static constexpr char kReady[] = "+";

 private:
  void tell(const std::string &text);

  tarn::UniqueFd pipe_;
};

/*
 * Of a program that will go to the background, before it opens anything: closes what its starter
 * has left open. A lock would stay taken, a pipe would keep its reader waiting, a file its file
 * system busy, for as long as this program runs.
 */
void close_inherited_descriptors();

/*
 * Forks. In the starter it does not return. In the background program, a session of its own with
 * its standard input on /dev/null and its output going to `log` (emptied first), it returns the
 * line to the starter.
 */
tarn::Result<Starter> go_to_background(const std::string &log);

}  // namespace tarnd

#endif
