/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The protocol of the control socket: JSON, one object a line. A request is
 *   {"verb": "wait", "source": "data", "target": "copy", "timeout_ms": 300000}
 * and is answered by any number of
 *   {"progress": 0.25, "what": "..."}          null: unknown how far
 *   {"difference": {"path": "a/b", "kind": "mode", "detail": "..."}}
 * and one of
 *   {"result": {...}}                          see `Verb`
 *   {"error": {"code": -110, "text": "..."}}   it was not or could not be done
 *   {"refused": "..."}                         this client is not served; the connection ends
 * A connection may carry several requests, each sent after the answer to the last. Strings that are
 * not UTF-8 are {"base64": "..."}.
 *
 * The parsers trust nothing: whatever is not as above is -EBADMSG.
 */
#ifndef TARN_MIRRORD_CONTROL_PROTOCOL_H
#define TARN_MIRRORD_CONTROL_PROTOCOL_H

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "base/result.h"
#include "mirrord/control/control.h"

namespace tarn {

inline constexpr std::size_t kRequestMax = 4096;    /* bytes of a line */
inline constexpr std::size_t kAnswerMax = 64 << 20; /* a report of a very large service */
inline constexpr std::chrono::milliseconds kTimeoutMax = std::chrono::hours(24 * 20);

enum class Verb {
  kStatus,  /* result: the report */
  kMetrics, /* result: {"text": "..."} */
  kWait,    /* result: {}, as of all that follow without another */
  kPause,
  kResume,
  kResync,
  kSkip,   /* of one target; result: {"skipped": "..."} */
  kVerify, /* of one target; result: {"differences": 2}, whose lines came before */
  kRepair, /* as verify */
  kRetire, /* of one replica: SOURCE, STREAM:REPLICA; result: {} */
};

struct Request {
  Verb verb = Verb::kStatus;
  TargetName name;
  std::chrono::milliseconds timeout{300'000}; /* of wait */
};

std::string request_line(const Request &request);
Result<Request> parse_request(std::string_view line);

std::string progress_line(double done, const std::string &what);
std::string difference_line(const Difference &difference);
std::string result_line(const nlohmann::ordered_json &result);
std::string error_line(const Error &error);
std::string refusal_line(const std::string &text);

struct Answer {
  enum class Kind { kProgress, kDifference, kResult, kError, kRefused } kind = Kind::kResult;
  double done = -1;
  std::string what; /* of progress */
  Difference difference;
  nlohmann::ordered_json result;
  Error error; /* the text of a refusal too */
};

Result<Answer> parse_answer(std::string_view line);

/* The names of the fields are those of the structures; mirrord(8) lists them. */
nlohmann::ordered_json report_json(const ServiceReport &report);
Result<ServiceReport> parse_report(const nlohmann::ordered_json &json);

}  // namespace tarn

#endif
