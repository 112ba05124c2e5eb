/* SPDX-License-Identifier: GPL-2.0 */
/* How a replica reaches its source's host: a question's bytes out, an answer's bytes back. */
#ifndef TARN_MIRRORD_REMOTE_REQUESTS_H
#define TARN_MIRRORD_REMOTE_REQUESTS_H

#include <cstddef>
#include <vector>

#include "base/result.h"
#include "client/messages.h"

namespace tarn {

class Requests {
 public:
  virtual ~Requests() = default;
  /* Any thread may ask. Waits for the answer, for a bounded time. The question may reach the
   * source's host more than once, or after the wait. Error: there is no answer; the text says why.
   * -ETIMEDOUT: none came in that time. */
  virtual Result<std::vector<std::byte>> ask(Bytes question) = 0;
};

}  // namespace tarn

#endif
