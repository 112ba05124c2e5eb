// SPDX-License-Identifier: GPL-2.0
// The metrics as a reader of Prometheus' text format takes them, and their file.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "tests/mirrord/control_fixture.h"

namespace tarn {
namespace {

using namespace test;
namespace fs = std::filesystem;
using Labels = std::map<std::string, std::string>;

/* A sample's labels, from behind the brace; moves `at` behind the closing one. */
Labels parse_labels(const std::string &line, std::size_t &at) {
  Labels labels;
  while (line.at(at) != '}') {
    const std::size_t equals = line.find("=\"", at);
    if (equals == std::string::npos) throw std::runtime_error("no value: " + line);
    const std::string name = line.substr(at, equals - at);
    if (!std::regex_match(name, std::regex("[a-z_]+"))) throw std::runtime_error("name: " + line);
    std::string value;
    for (at = equals + 2; line.at(at) != '"'; ++at) {
      if (line[at] != '\\') {
        value += line[at];
        continue;
      }
      const char escaped = line.at(++at);
      if (escaped != 'n' && escaped != '\\' && escaped != '"')
        throw std::runtime_error("escape: " + line);
      value += escaped == 'n' ? '\n' : escaped;
    }
    if (!labels.emplace(name, value).second) throw std::runtime_error("label twice: " + line);
    if (line.at(++at) == ',') ++at;
  }
  ++at;
  return labels;
}

/* The samples by name and labels. Throws at what the format does not allow. */
std::map<std::pair<std::string, Labels>, double> parse_metrics(const std::string &text) {
  if (text.empty() || text.back() != '\n') throw std::runtime_error("no end of the last line");
  std::map<std::pair<std::string, Labels>, double> samples;
  std::set<std::string> families;
  std::string family, help;
  std::istringstream in(text);
  std::smatch match;
  for (std::string line; std::getline(in, line);) {
    if (std::regex_match(line, match, std::regex("# HELP ([a-z_]+) [^\\\\]+"))) {
      help = match[1];
    } else if (std::regex_match(line, match, std::regex("# TYPE ([a-z_]+) (gauge|counter)"))) {
      family = match[1];
      if (family != help) throw std::runtime_error("no help: " + line);
      if (!families.insert(family).second) throw std::runtime_error("family twice: " + line);
      if (family.ends_with("_total") != (match[2] == "counter"))
        throw std::runtime_error("only counters end in _total: " + line);
    } else {
      std::size_t at = line.find_first_of("{ ");
      const std::string name = line.substr(0, at);
      if (name != family) throw std::runtime_error("outside of its family: " + line);
      Labels labels;
      if (line.at(at) == '{') labels = parse_labels(line, ++at);
      if (line.at(at) != ' ') throw std::runtime_error("no blank: " + line);
      const std::string number = line.substr(at + 1);
      std::size_t used = 0;
      const double value = std::stod(number, &used);
      if (used != number.size()) throw std::runtime_error("number: " + line);
      if (!samples.emplace(std::pair(name, labels), value).second)
        throw std::runtime_error("sample twice: " + line);
    }
  }
  for (const std::string &name : families) {
    if (!name.starts_with("tarn_mirrord_")) throw std::runtime_error("prefix: " + name);
  }
  return samples;
}

TEST(ControlMetrics, each_number_of_the_report_is_a_sample) {
  const auto samples = parse_metrics(metrics_text(sample_report()));
  const auto value = [&](const std::string &name, const Labels &labels) {
    const auto found = samples.find({"tarn_mirrord_" + name, labels});
    return found == samples.end() ? -77 : found->second;
  };
  const Labels data{{"source", "data"}}, usb{{"source", "data"}, {"target", "usb"}};
  EXPECT_EQ(value("info", {{"version", "1.2.3"}}), 1);
  EXPECT_EQ(value("uptime_seconds", {}), 100000);
  EXPECT_EQ(value("connected", {}), 1);
  EXPECT_EQ(value("source_stopped", data), 0);
  EXPECT_EQ(value("source_captured_records", data), 12);
  EXPECT_EQ(value("source_logged_records_total", data), 9);
  EXPECT_EQ(value("source_gaps_total", data), 1);
  EXPECT_EQ(value("log_bytes", data), 4096);
  EXPECT_EQ(value("log_limit_bytes", data), 1 << 30);
  EXPECT_EQ(value("log_first_entry", data), 1);
  EXPECT_EQ(value("log_end_entry", data), 11);
  EXPECT_EQ(value("log_durable_entry", data), 10);
  EXPECT_EQ(value("log_age_seconds", data), 3.5);
  EXPECT_EQ(value("target_position_entry", usb), 5);
  EXPECT_EQ(value("target_lag_entries", usb), 6);
  EXPECT_EQ(value("target_lag_bytes", usb), 3 << 20);
  EXPECT_EQ(value("target_lag_seconds", usb), 90);
  EXPECT_EQ(value("target_applied_total", usb), 4);
  EXPECT_EQ(value("target_failures_total", usb), 3);
  EXPECT_EQ(value("target_skipped_total", usb), 2);
  EXPECT_EQ(value("target_gaps", usb), 0);
  EXPECT_EQ(value("target_progress_ratio", usb), 0.25);
  EXPECT_EQ(value("target_left_seconds", usb), 7200);
  EXPECT_EQ(value("target_read_bytes_per_second", usb), 2.5 * (1 << 20));
  EXPECT_EQ(value("target_left_seconds", {{"source", "home"}, {"target", "far"}}), -77)
      << "unknown";
  Labels state = usb;
  state["state"] = "copying";
  EXPECT_EQ(value("target_state", state), 1);
  state["state"] = "held";
  EXPECT_EQ(value("target_state", state), 0);
}

TEST(ControlMetrics, labels_may_have_any_byte) {
  ServiceReport report = sample_report();
  report.sources[0].name = "a\"b\\c\nd,}=";
  report.sources[1].name = "\xff";
  report.sources[0].targets[0].state = "odd";
  report.sources[0].log_age_seconds = INFINITY;
  const auto samples = parse_metrics(metrics_text(report));
  EXPECT_TRUE(samples.contains({"tarn_mirrord_log_bytes", {{"source", "a\"b\\c\nd,}="}}}));
  EXPECT_TRUE(samples.contains({"tarn_mirrord_log_bytes", {{"source", "\"\\xff\""}}}));
  EXPECT_TRUE(
      samples.contains({"tarn_mirrord_target_state",
                        {{"source", "a\"b\\c\nd,}="}, {"target", "copy"}, {"state", "odd"}}}));
}

TEST(ControlMetrics, a_service_without_sources_has_metrics_too) {
  const auto samples = parse_metrics(metrics_text({}));
  EXPECT_EQ(samples.at({"tarn_mirrord_connected", {}}), 0);
  EXPECT_EQ(samples.size(), 3U);
}

class MetricsFileTest : public testing::Test {
 protected:
  static std::string contents(const std::string &file) {
    std::ifstream in(file);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  std::size_t names() const {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(dir_.path()), {}));
  }

  ControlDirectory dir_;
  const std::string file_ = dir_ / "tarn.prom";
};

TEST_F(MetricsFileTest, it_is_replaced_and_never_changed) {
  const mode_t old = umask(077);
  const auto first = write_metrics(file_, sample_report());
  umask(old);
  ASSERT_TRUE(first.ok()) << first.error().text;
  const UniqueFd reader(open(file_.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat before, after;
  ASSERT_EQ(fstat(reader.get(), &before), 0);
  EXPECT_EQ(before.st_mode & 07777, 0644U);
  ASSERT_TRUE(write_metrics(file_, {}).ok());
  ASSERT_EQ(fstat(reader.get(), &after), 0);
  EXPECT_EQ(after.st_size, before.st_size) << "who reads it sees one of the two whole";
  EXPECT_EQ(contents(file_), metrics_text({}));
  EXPECT_EQ(names(), 1U) << "nothing is left over";
}

TEST_F(MetricsFileTest, what_was_left_by_a_killed_service_is_not_in_the_way_nor_followed) {
  std::ofstream(dir_ / "precious") << "precious";
  fs::create_symlink(dir_ / "precious", file_ + ".new");
  ASSERT_TRUE(write_metrics(file_, sample_report()).ok());
  EXPECT_EQ(contents(dir_ / "precious"), "precious");
  EXPECT_EQ(contents(file_), metrics_text(sample_report()));
  EXPECT_FALSE(fs::is_symlink(file_));
}

TEST_F(MetricsFileTest, what_is_no_regular_file_is_left) {
  ASSERT_EQ(mkfifo(file_.c_str(), 0600), 0);
  EXPECT_EQ(write_metrics(file_, {}).error().code, -EINVAL);
  EXPECT_TRUE(fs::is_fifo(file_));
  EXPECT_EQ(write_metrics(dir_.path(), {}).error().code, -EINVAL);
  EXPECT_EQ(write_metrics(dir_ / "missing/file", {}).error().code, -ENOENT);
  EXPECT_EQ(names(), 1U);
}

TEST_F(MetricsFileTest, what_cannot_be_written_leaves_the_old_one) {
  ASSERT_TRUE(write_metrics(file_, {}).ok());
  fs::create_directory(file_ + ".new");  // can be neither replaced nor written
  EXPECT_FALSE(write_metrics(file_, sample_report()).ok());
  EXPECT_EQ(contents(file_), metrics_text({}));
}

}  // namespace
}  // namespace tarn
