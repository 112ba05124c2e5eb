// SPDX-License-Identifier: GPL-2.0
// Requests, answers and reports as lines, there and back; the problems that a report shows.
#include "mirrord/control/protocol.h"

#include <cerrno>
#include <cmath>
#include <fstream>
#include <iterator>

#include "tests/mirrord/control_fixture.h"

namespace tarn {
namespace {

using namespace test;
using Json = nlohmann::ordered_json;

TEST(ControlProtocol, requests_come_back_as_they_were) {
  for (const Verb verb : {Verb::kWait, Verb::kPause, Verb::kResume, Verb::kResync, Verb::kSkip,
                          Verb::kVerify, Verb::kRepair}) {
    const Request sent{.verb = verb, .name = {"a \"b\"\n", "\xff"}, .timeout = kTimeoutMax};
    std::string line = request_line(sent);
    ASSERT_EQ(line.find('\n'), line.size() - 1);
    line.pop_back();
    const auto got = parse_request(line);
    ASSERT_TRUE(got.ok()) << got.error().text;
    EXPECT_EQ(got->verb, verb);
    EXPECT_EQ(got->name.source, sent.name.source);
    EXPECT_EQ(got->name.target, sent.name.target);
    if (verb == Verb::kWait) {
      EXPECT_EQ(got->timeout, kTimeoutMax);
    }
  }
  EXPECT_EQ(parse_request(R"({"verb":"wait"})")->timeout, std::chrono::seconds(300));
}

TEST(ControlProtocol, answers_come_back_as_they_were) {
  auto answer = parse_answer(progress_line(0.5, "a\xff"));
  EXPECT_EQ(answer->kind, Answer::Kind::kProgress);
  EXPECT_EQ(answer->done, 0.5);
  EXPECT_EQ(answer->what, "a\xff");
  for (const double unknown : {-1.0, std::nan(""), double{INFINITY}})
    EXPECT_EQ(parse_answer(progress_line(unknown, ""))->done, -1);
  answer = parse_answer(difference_line({"a\nb", "data", "\x80"}));
  EXPECT_EQ(answer->kind, Answer::Kind::kDifference);
  EXPECT_EQ(answer->difference.path, "a\nb");
  EXPECT_EQ(answer->difference.kind, "data");
  EXPECT_EQ(answer->difference.detail, "\x80");
  answer = parse_answer(error_line({-EIO, "why \xff"}));
  EXPECT_EQ(answer->kind, Answer::Kind::kError);
  EXPECT_EQ(answer->error.code, -EIO);
  EXPECT_EQ(answer->error.text, "why \xff");
  answer = parse_answer(refusal_line("no"));
  EXPECT_EQ(answer->kind, Answer::Kind::kRefused);
  EXPECT_EQ(answer->error.text, "no");
  answer = parse_answer(result_line(Json::object()));
  EXPECT_EQ(answer->kind, Answer::Kind::kResult);
}

TEST(ControlProtocol, what_is_no_answer_is_refused) {
  for (const char *line :
       {"", "x", "[]", "{}", R"({"progress":1})", R"({"progress":"1","what":""})",
        R"({"difference":[]})", R"({"difference":{"path":"a","kind":"b"}})", R"({"result":7})",
        R"({"error":"x"})", R"({"error":{"code":"x","text":"y"}})",
        R"({"error":{"code":99999999999,"text":"y"}})", R"({"refused":{"base64":"*"}})",
        R"({"refused":{"base64":"eA==","more":1}})"})
    EXPECT_EQ(parse_answer(line).ok(), false) << line;
}

TEST(ControlProtocol, a_report_comes_back_as_it_was) {
  ServiceReport report = sample_report();
  report.sources[0].directory = "/srv/\xff";
  report.sources[0].targets[0].last_error = "line\nline";
  const Json json = report_json(report);
  const auto back = parse_report(Json::parse(result_line(json))["result"]);
  ASSERT_TRUE(back.ok()) << back.error().text;
  EXPECT_EQ(report_json(*back), json);
  EXPECT_EQ(back->sources[0].directory, "/srv/\xff");
  EXPECT_EQ(back->sources[0].targets[1].progress, 0.25);
  EXPECT_EQ(back->sources[1].targets[0].progress, -1);
  EXPECT_TRUE(json["sources"][1]["targets"][0]["progress"].is_null());
}

TEST(ControlProtocol, a_report_without_a_field_is_refused_and_one_with_more_is_not) {
  const Json whole = report_json(sample_report());
  const auto refused = [](const Json &json) { return !parse_report(json).ok(); };
  EXPECT_FALSE(refused(whole));
  const auto without_each = [&](const Json::json_pointer &place) {
    for (const auto &[name, value] : whole[place].items()) {
      if (name == "problems") continue;
      Json changed = whole;
      changed[place].erase(name);
      EXPECT_TRUE(refused(changed)) << name;
      changed[place][name] = Json::array({1});
      EXPECT_TRUE(refused(changed) || name == "targets" || name == "sources") << name;
    }
    Json more = whole;
    more[place]["new"] = 1;
    EXPECT_FALSE(refused(more));
  };
  without_each(Json::json_pointer(""));
  without_each(Json::json_pointer("/sources/0"));
  without_each(Json::json_pointer("/sources/0/targets/1"));
  Json wrong = whole;
  wrong["sources"] = Json::array({1});
  EXPECT_TRUE(refused(wrong));
  wrong = whole;
  wrong["sources"][0]["logged"] = -1;
  EXPECT_TRUE(refused(wrong));
}

TEST(ControlProtocol, the_manual_lists_each_field) {
  std::ifstream file(MIRRORD_MANUAL);
  const std::string manual{std::istreambuf_iterator<char>(file), {}};
  ASSERT_FALSE(manual.empty());
  const std::string fields = manual.substr(manual.find(".Ss The report"));
  const Json report = report_json(sample_report());
  for (const char *place : {"", "/sources/0", "/sources/0/targets/1"}) {
    for (const auto &[name, value] : report[Json::json_pointer(place)].items())
      EXPECT_NE(fields.find(".It Va " + name + "\n"), std::string::npos) << name;
  }
}

TEST(ControlProtocol, each_problem_is_a_line) {
  ServiceReport report = sample_report();
  EXPECT_TRUE(problems(report).empty());
  report.connected = false;
  report.connection_error = "no tarnd runs";
  report.sources[1].stopped = true;
  report.sources[0].targets[0].state = "held";
  report.sources[0].targets[0].last_error = "no space left";
  report.sources[0].targets[1].state = "away";
  report.sources[1].targets[0].gaps = 2;
  const auto lines = problems(report);
  ASSERT_EQ(lines.size(), 5U);
  EXPECT_NE(lines[0].find("no tarnd runs"), std::string::npos);
  EXPECT_NE(lines[1].find("no space left"), std::string::npos);
  EXPECT_NE(lines[1].find("mirrord skip data/copy"), std::string::npos);
  EXPECT_NE(lines[2].find("data/usb is away"), std::string::npos);
  EXPECT_NE(lines[3].find("home is stopped"), std::string::npos);
  EXPECT_NE(lines[4].find("home/far has 2 gaps"), std::string::npos);
}

}  // namespace
}  // namespace tarn
