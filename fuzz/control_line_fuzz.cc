// SPDX-License-Identifier: GPL-2.0
// Any line as a request and as an answer of the control socket: refused, or written again it is
// read as the same. A report that is read can be shown and counted.
// Input: the line.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "mirrord/control/protocol.h"
#include "mirrord/control/report_text.h"

namespace {

using namespace tarn;

void check(bool good, const char *what) {
  if (good) return;
  std::fprintf(stderr, "not so: %s\n", what);
  std::abort();
}

std::string without_end(std::string line) {
  check(!line.empty() && line.find('\n') == line.size() - 1, "one line");
  line.pop_back();
  return line;
}

void check_request(const std::string &line) {
  const auto request = parse_request(line);
  if (!request) return check(!request.error().text.empty(), "a reason");
  const std::string again = without_end(request_line(*request));
  const auto same = parse_request(again);
  check(same.ok(), "what is written can be read");
  check(same->verb == request->verb && same->name.source == request->name.source &&
            same->name.target == request->name.target,
        "the same request");
  if (request->verb == Verb::kWait) check(same->timeout == request->timeout, "the same time");
}

std::string line_of(const Answer &answer) {
  switch (answer.kind) {
    case Answer::Kind::kProgress:
      return progress_line(answer.done, answer.what);
    case Answer::Kind::kDifference:
      return difference_line(answer.difference);
    case Answer::Kind::kResult:
      return result_line(answer.result);
    case Answer::Kind::kError:
      return error_line(answer.error);
    case Answer::Kind::kRefused:
      return refusal_line(answer.error.text);
  }
  return "";
}

void check_report(const nlohmann::ordered_json &json) {
  const auto report = parse_report(json);
  if (!report) return;
  const auto same = parse_report(report_json(*report));
  check(same.ok() && report_json(*same) == report_json(*report), "the same report");
  check(!status_text(*report).empty() && !targets_text(*report).empty(), "a text");
  check(metrics_text(*report).back() == '\n', "metrics");
}

void check_answer(const std::string &line) {
  const auto answer = parse_answer(line);
  if (!answer) return check(!answer.error().text.empty(), "a reason");
  const std::string again = without_end(line_of(*answer));
  const auto same = parse_answer(again);
  check(same.ok() && same->kind == answer->kind, "what is written can be read");
  check(without_end(line_of(*same)) == again, "the same answer");
  if (answer->kind == Answer::Kind::kResult) check_report(answer->result);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  const std::string line(reinterpret_cast<const char *>(data), size);
  check_request(line);
  check_answer(line);
  return 0;
}
