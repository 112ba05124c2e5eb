/* SPDX-License-Identifier: GPL-2.0 */
/* Asks the mirrord service over its control socket. Used by one thread at a time. */
#ifndef TARN_MIRRORD_CONTROL_CLIENT_H
#define TARN_MIRRORD_CONTROL_CLIENT_H

#include <functional>
#include <string>

#include "base/result.h"
#include "mirrord/control/line_stream.h"
#include "mirrord/control/protocol.h"

namespace tarn {

/* What comes before the result. */
struct CallListener {
  std::function<void(double done, const std::string &what)> progress;
  std::function<void(const Difference &difference)> difference;
};

struct CallOutcome {
  enum class Kind {
    kDone,
    kFailed,      /* the service says why */
    kUnreachable, /* it does not serve us, does not answer, or has ended meanwhile */
  };
  Kind kind = Kind::kDone;
  nlohmann::ordered_json result;
  Error error;
};

class ControlClient {
 public:
  /* Errors: as connect_control(). */
  static Result<ControlClient> connect(const std::string &socket);

  /* Waits for the result until the deadline. After kUnreachable the client is of no use. */
  CallOutcome call(const Request &request, LineStream::Deadline deadline,
                   const CallListener &listener);

 private:
  explicit ControlClient(UniqueFd socket) : stream_(std::move(socket)) {}

  LineStream stream_;
};

}  // namespace tarn

#endif
