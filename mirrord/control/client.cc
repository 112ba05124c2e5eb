// SPDX-License-Identifier: GPL-2.0
#include "mirrord/control/client.h"

#include <cerrno>

#include "mirrord/control/socket.h"

namespace tarn {
namespace {

constexpr std::chrono::milliseconds kSendPatience{10'000};

CallOutcome unreachable(const std::string &text) {
  return {CallOutcome::Kind::kUnreachable, {}, {-ECONNRESET, text}};
}

CallOutcome no_answer(const Error &error) {
  if (error.code == -ETIMEDOUT)
    return unreachable(
        "the mirrord service does not answer: see what its process does, or restart it");
  return unreachable("the mirrord service ended before it answered (" + error.text +
                     "): look into its log, and try again when it runs");
}

}  // namespace

Result<ControlClient> ControlClient::connect(const std::string &socket) {
  auto connected = connect_control(socket);
  if (!connected) return connected.error();
  return ControlClient(std::move(*connected));
}

CallOutcome ControlClient::call(const Request &request, LineStream::Deadline deadline,
                                const CallListener &listener) {
  // A service that refuses us has closed its end already, but its reason can still be read.
  const auto sent = stream_.write(request_line(request), kSendPatience);
  if (!sent && sent.error().code != -EPIPE && sent.error().code != -ECONNRESET)
    return no_answer(sent.error());
  for (;;) {
    const auto line = stream_.read_line(kAnswerMax, deadline);
    if (!line) return no_answer(line.error());
    if (!*line) return no_answer({-ECONNRESET, "the connection was closed"});
    auto answer = parse_answer(**line);
    if (!answer)
      return unreachable("what answers is no mirrord service of this version (" +
                         answer.error().text + "): restart it after an upgrade");
    switch (answer->kind) {
      case Answer::Kind::kProgress:
        if (listener.progress) listener.progress(answer->done, answer->what);
        break;
      case Answer::Kind::kDifference:
        if (listener.difference) listener.difference(answer->difference);
        break;
      case Answer::Kind::kResult:
        return {CallOutcome::Kind::kDone, std::move(answer->result), {}};
      case Answer::Kind::kError:
        return {CallOutcome::Kind::kFailed, {}, std::move(answer->error)};
      case Answer::Kind::kRefused:
        return unreachable("the mirrord service refuses: " + answer->error.text);
    }
  }
}

}  // namespace tarn
