// SPDX-License-Identifier: GPL-2.0
#include "tests/mirrord/log_kit.h"

#include <stdlib.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <stdexcept>
#include <string_view>

#define XXH_INLINE_ALL
#include <xxhash.h>

#include "mirrord/log/format.h"

namespace tarn::test {

namespace fs = std::filesystem;

LogDirectory::LogDirectory() : path_(fs::temp_directory_path() / "tarn-log-XXXXXX") {
  if (!mkdtemp(path_.data())) throw std::runtime_error("mkdtemp");
}

LogDirectory::~LogDirectory() {
  fs::remove_all(path_);
}

std::string LogDirectory::segment(LogPosition first) const {
  return log() + "/" + segment_name(first);
}

std::vector<LogPosition> LogDirectory::segments() const {
  std::vector<LogPosition> found;
  for (const auto &entry : fs::directory_iterator(log()))
    if (const auto first = parse_segment_name(entry.path().filename().string()))
      found.push_back(*first);
  std::sort(found.begin(), found.end());
  return found;
}

std::unique_ptr<Log> open_log(const std::string &directory, Log::Options options) {
  auto log = Log::open(directory, options);
  if (!log) throw std::runtime_error(log.error().text);
  return std::move(*log);
}

std::string payload_at(LogPosition position) {
  std::string text(position * 7 % 61, '\0');
  for (std::size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>(position * 31 + i * 17);
  return text;
}

std::uint8_t kind_at(LogPosition position) {
  return static_cast<std::uint8_t>(position * 3);
}

Result<LogPosition> append_next(Log &log) {
  const std::string payload = payload_at(log.end());
  const Bytes whole = std::as_bytes(std::span(payload));
  const std::size_t middle = whole.size() / 3;
  const Bytes parts[] = {whole.first(middle), whole.subspan(middle)};
  return log.append(kind_at(log.end()), parts);
}

void append_many(Log &log, int count) {
  for (; count > 0; --count)
    if (const auto done = append_next(log); !done) throw std::runtime_error(done.error().text);
}

bool is_as_appended(const LogEntry &entry) {
  const std::string_view got(reinterpret_cast<const char *>(entry.payload.data()),
                             entry.payload.size());
  return entry.kind == kind_at(entry.position) && got == payload_at(entry.position) &&
         entry.time_ns != 0;
}

Reading read_log(const Log &log, LogPosition from) {
  Reading reading;
  LogReader reader(log, from);
  for (;;) {
    const LogPosition at = reader.position();
    const auto entry = reader.next();
    if (!entry && entry.error().code != -EBADMSG) throw std::runtime_error(entry.error().text);
    if (!entry) {
      const auto next = reader.skip_damage();
      if (!next) throw std::runtime_error(next.error().text);
      reading.holes.emplace_back(at, *next);
      if (*next <= at || *next != reader.position()) ++reading.wrong;
      continue;
    }
    if (!*entry) return reading;
    reading.entries.push_back((*entry)->position);
    if ((*entry)->position != at || !is_as_appended(**entry)) ++reading.wrong;
  }
}

Reading whole_reading(LogPosition from, LogPosition end) {
  Reading reading;
  for (; from < end; ++from) reading.entries.push_back(from);
  return reading;
}

std::uint64_t header_checksum_of(const std::string &bytes) {
  return XXH3_64bits(bytes.data(), offsetof(SegmentHeader, checksum));
}

std::string read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  return {std::istreambuf_iterator<char>(in), {}};
}

void write_file(const std::string &path, const std::string &bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

std::vector<std::pair<std::string, std::string>> snapshot(const std::string &directory) {
  std::vector<std::pair<std::string, std::string>> files;
  for (const auto &entry : fs::directory_iterator(directory))
    files.emplace_back(entry.path().filename().string(),
                       entry.is_regular_file() ? read_file(entry.path().string()) : "");
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace tarn::test
