// SPDX-License-Identifier: GPL-2.0
#include "mirrord/control/protocol.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <optional>

#include <fmt/format.h>

#include "base/text.h"
#include "client/base64.h"
#include "client/json_bytes.h"

namespace tarn {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kNameMax = 255;

enum class Needs {
  kNothing,
  kAnyName,   /* of a source, of a target, or none */
  kOneTarget, /* both */
};

struct VerbWord {
  Verb verb;
  const char *word;
  Needs needs;
};

constexpr std::array kVerbs = {
    VerbWord{Verb::kStatus, "status", Needs::kNothing},
    VerbWord{Verb::kMetrics, "metrics", Needs::kNothing},
    VerbWord{Verb::kWait, "wait", Needs::kAnyName},
    VerbWord{Verb::kPause, "pause", Needs::kAnyName},
    VerbWord{Verb::kResume, "resume", Needs::kAnyName},
    VerbWord{Verb::kResync, "resync", Needs::kAnyName},
    VerbWord{Verb::kSkip, "skip", Needs::kOneTarget},
    VerbWord{Verb::kVerify, "verify", Needs::kOneTarget},
    VerbWord{Verb::kRepair, "repair", Needs::kOneTarget},
    VerbWord{Verb::kRetire, "retire", Needs::kOneTarget},
};

Error bad(const std::string &what) {
  return {-EBADMSG, what};
}

/* Never throws: what json_bytes() did not make and is not UTF-8 is replaced. */
std::string line_of(const Json &json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

/* An object, or a value that was discarded. */
Json parse_object(std::string_view line) {
  Json json = Json::parse(line, nullptr, false);
  return json.is_object() ? json : Json(Json::value_t::discarded);
}

std::optional<std::string> read_bytes(const Json &json) {
  if (json.is_string()) return json.get<std::string>();
  if (!json.is_object() || json.size() != 1) return std::nullopt;
  const auto encoded = json.find("base64");
  if (encoded == json.end() || !encoded->is_string()) return std::nullopt;
  return base64_decode(encoded->get_ref<const std::string &>());
}

bool read(const Json &json, std::string &out) {
  auto text = read_bytes(json);
  if (text) out = std::move(*text);
  return text.has_value();
}

bool read(const Json &json, std::uint64_t &out) {
  if (json.is_number_unsigned()) out = json.get<std::uint64_t>();
  return json.is_number_unsigned();
}

bool read(const Json &json, int &out) {
  if (!json.is_number_integer()) return false;
  const auto number = json.get<std::int64_t>();
  out = static_cast<int>(number);
  return out == number;
}

bool read(const Json &json, double &out) {
  out = json.is_number() ? json.get<double>() : -1;
  return json.is_number() || json.is_null();
}

bool read(const Json &json, bool &out) {
  if (json.is_boolean()) out = json.get<bool>();
  return json.is_boolean();
}

Json written(const std::string &text) {
  return json_bytes(text);
}
Json written(double number) {
  return number >= 0 && std::isfinite(number) ? Json(number) : Json(nullptr);
}
template <class T>
Json written(T value) {
  return value;
}

/* Calls field(name, member) for each field; of a const structure to write, of another to read. */
template <class Report, class F>
void each_target_field(Report &target, F field) {
  field("name", target.name);
  field("directory", target.directory);
  field("kind", target.kind);
  field("state", target.state);
  field("last_error", target.last_error);
  field("position", target.position);
  field("lag_entries", target.lag_entries);
  field("lag_bytes", target.lag_bytes);
  field("lag_seconds", target.lag_seconds);
  field("applied", target.applied);
  field("failures", target.failures);
  field("gaps", target.gaps);
  field("skipped", target.skipped);
  field("progress", target.progress);
  field("seconds_left", target.seconds_left);
  field("bytes_per_second", target.bytes_per_second);
  field("contact_seconds", target.contact_seconds);
}

template <class Report, class F>
void each_source_field(Report &source, F field) {
  field("name", source.name);
  field("directory", source.directory);
  field("rule", source.rule);
  field("captured", source.captured);
  field("logged", source.logged);
  field("gaps", source.gaps);
  field("last_gap", source.last_gap);
  field("log_bytes", source.log_bytes);
  field("log_limit", source.log_limit);
  field("log_first", source.log_first);
  field("log_end", source.log_end);
  field("log_durable", source.log_durable);
  field("log_age_seconds", source.log_age_seconds);
  field("stopped", source.stopped);
}

template <class Report, class F>
void each_service_field(Report &service, F field) {
  field("pid", service.pid);
  field("version", service.version);
  field("uptime_seconds", service.uptime_seconds);
  field("connected", service.connected);
  field("connection_error", service.connection_error);
}

class FieldWriter {
 public:
  explicit FieldWriter(Json &json) : json_(json) {}
  template <class T>
  void operator()(const char *name, const T &member) const {
    json_[name] = written(member);
  }

 private:
  Json &json_;
};

/* Fields that a newer service has are left alone. */
class FieldReader {
 public:
  FieldReader(const Json &json, std::string &missing) : json_(json), missing_(missing) {}
  template <class T>
  void operator()(const char *name, T &member) const {
    const auto field = json_.find(name);
    if (field == json_.end() || !read(*field, member)) missing_ = name;
  }

 private:
  const Json &json_;
  std::string &missing_;
};

/* The array `name`; null if there is none. */
const Json *list_of(const Json &json, const char *name) {
  const auto list = json.find(name);
  return list != json.end() && list->is_array() ? &*list : nullptr;
}

bool read_name(const Json &json, std::string &out) {
  return read(json, out) && !out.empty() && out.size() <= kNameMax;
}

Result<void> read_request_field(const std::string &field, const Json &value, Request &request) {
  bool good = true;
  if (field == "source") {
    good = read_name(value, request.name.source);
  } else if (field == "target") {
    good = read_name(value, request.name.target);
  } else if (field == "timeout_ms" && request.verb == Verb::kWait) {
    std::uint64_t ms = 0;
    good = read(value, ms) && ms <= static_cast<std::uint64_t>(kTimeoutMax.count());
    if (good) request.timeout = std::chrono::milliseconds(ms);
  } else if (field != "verb") {
    return bad("the request has the field " + printable(field) + ", which it cannot have");
  }
  if (!good) return bad("the field " + field + " of the request has a value that it cannot have");
  return {};
}

const VerbWord &word_of(Verb verb) {
  return *std::find_if(kVerbs.begin(), kVerbs.end(),
                       [verb](const VerbWord &known) { return known.verb == verb; });
}

Result<void> check_name(const Request &request, const VerbWord &known) {
  const TargetName &name = request.name;
  if (known.needs == Needs::kNothing && !(name.source.empty() && name.target.empty()))
    return bad(fmt::format("{} is not about a source", known.word));
  if (name.source.empty() && !name.target.empty())
    return bad("the request names a target without its source");
  if (known.needs == Needs::kOneTarget && name.target.empty())
    return bad(fmt::format("{} needs the names of a source and of a target", known.word));
  return {};
}

bool read_difference(const Json &json, Difference &out) {
  std::string missing;
  const FieldReader field(json, missing);
  field("path", out.path);
  field("kind", out.kind);
  field("detail", out.detail);
  field("other", out.other);
  return missing.empty();
}

bool read_error(const Json &json, Error &out) {
  std::string missing;
  const FieldReader field(json, missing);
  field("code", out.code);
  field("text", out.text);
  return missing.empty();
}

}  // namespace

std::string request_line(const Request &request) {
  Json json{{"verb", word_of(request.verb).word}};
  if (!request.name.source.empty()) json["source"] = json_bytes(request.name.source);
  if (!request.name.target.empty()) json["target"] = json_bytes(request.name.target);
  if (request.verb == Verb::kWait) json["timeout_ms"] = request.timeout.count();
  return line_of(json);
}

Result<Request> parse_request(std::string_view line) {
  const Json json = parse_object(line);
  if (json.is_discarded()) return bad("the request is no JSON object");
  const auto verb = json.find("verb");
  if (verb == json.end() || !verb->is_string()) return bad("the request has no verb");
  const auto &word = verb->get_ref<const std::string &>();
  const auto *known = std::find_if(kVerbs.begin(), kVerbs.end(),
                                   [&](const VerbWord &one) { return one.word == word; });
  if (known == kVerbs.end()) return bad("the verb " + printable(word) + " is not known");
  Request request{.verb = known->verb, .name = {}};
  for (const auto &[field, value] : json.items()) {
    if (auto taken = read_request_field(field, value, request); !taken) return taken.error();
  }
  if (auto named = check_name(request, *known); !named) return named.error();
  return request;
}

std::string progress_line(double done, const std::string &what) {
  return line_of({{"progress", written(done)}, {"what", json_bytes(what)}});
}

std::string difference_line(const Difference &difference) {
  return line_of({{"difference",
                   {{"path", json_bytes(difference.path)},
                    {"kind", json_bytes(difference.kind)},
                    {"detail", json_bytes(difference.detail)},
                    {"other", json_bytes(difference.other)}}}});
}

std::string result_line(const Json &result) {
  return line_of({{"result", result}});
}

std::string error_line(const Error &error) {
  return line_of({{"error", {{"code", error.code}, {"text", json_bytes(error.text)}}}});
}

std::string refusal_line(const std::string &text) {
  return line_of({{"refused", json_bytes(text)}});
}

Result<Answer> parse_answer(std::string_view line) {
  const Json json = parse_object(line);
  if (json.is_discarded()) return bad("the answer is no JSON object");
  Answer answer;
  const auto is = [&](const char *field) { return json.find(field) != json.end(); };
  bool good = true;
  if (is("progress")) {
    answer.kind = Answer::Kind::kProgress;
    good = is("what") && read(json["progress"], answer.done) && read(json["what"], answer.what);
  } else if (is("difference")) {
    answer.kind = Answer::Kind::kDifference;
    good = json["difference"].is_object() && read_difference(json["difference"], answer.difference);
  } else if (is("result")) {
    answer.kind = Answer::Kind::kResult;
    answer.result = json["result"];
    good = answer.result.is_object();
  } else if (is("error")) {
    answer.kind = Answer::Kind::kError;
    good = json["error"].is_object() && read_error(json["error"], answer.error);
  } else if (is("refused")) {
    answer.kind = Answer::Kind::kRefused;
    good = read(json["refused"], answer.error.text);
  } else {
    good = false;
  }
  if (!good) return bad("the answer has not the form of one");
  return answer;
}

Json report_json(const ServiceReport &report) {
  Json json;
  each_service_field(report, FieldWriter(json));
  json["problems"] = Json::array();
  for (const std::string &problem : problems(report))
    json["problems"].push_back(json_bytes(problem));
  json["sources"] = Json::array();
  for (const SourceReport &source : report.sources) {
    Json &made = json["sources"].emplace_back(Json::object());
    each_source_field(source, FieldWriter(made));
    made["targets"] = Json::array();
    for (const TargetReport &target : source.targets)
      each_target_field(target, FieldWriter(made["targets"].emplace_back(Json::object())));
  }
  return json;
}

Result<ServiceReport> parse_report(const Json &json) {
  std::string missing;
  const auto read_source = [&missing](const Json &from, SourceReport &source) {
    const Json *targets = list_of(from, "targets");
    if (!targets) missing = "targets";
    each_source_field(source, FieldReader(from, missing));
    for (std::size_t i = 0; targets && i < targets->size(); ++i)
      each_target_field(source.targets.emplace_back(), FieldReader((*targets)[i], missing));
  };
  ServiceReport report;
  each_service_field(report, FieldReader(json, missing));
  const Json *sources = list_of(json, "sources");
  if (!sources) missing = "sources";
  for (std::size_t i = 0; sources && i < sources->size(); ++i)
    read_source((*sources)[i], report.sources.emplace_back());
  if (!missing.empty()) return bad("the report has no usable field " + missing);
  return report;
}

}  // namespace tarn
