/* SPDX-License-Identifier: GPL-2.0 */
/* What the tests of the log share. The content of an entry follows from its position, so that any
 * entry can be judged by itself. */
#ifndef TARN_TESTS_MIRRORD_LOG_KIT_H
#define TARN_TESTS_MIRRORD_LOG_KIT_H

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "mirrord/log/log.h"

namespace tarn::test {

/* A new directory that goes with the object; logs are made below it. */
class LogDirectory {
 public:
  LogDirectory();
  ~LogDirectory();
  LogDirectory(const LogDirectory &) = delete;
  LogDirectory &operator=(const LogDirectory &) = delete;
  std::string operator/(const std::string &name) const { return path_ + "/" + name; }
  std::string log() const { return path_ + "/log"; }
  std::string segment(LogPosition first) const;
  /* The segments' first positions, in order. */
  std::vector<LogPosition> segments() const;

 private:
  std::string path_;
};

inline constexpr Log::Options kSmallSegments{1 << 20, 512};

/* Throws with the error's text. */
std::unique_ptr<Log> open_log(const std::string &directory, Log::Options options = {});

std::string payload_at(LogPosition position);
std::uint8_t kind_at(LogPosition position);

/* Appends the entry that belongs at the log's end. */
Result<LogPosition> append_next(Log &log);
/* The same `count` times; throws on an error. */
void append_many(Log &log, int count);

/* Whether the entry is the one that belongs at its position. */
bool is_as_appended(const LogEntry &entry);

/* What a reader sees from a position to the end. */
struct Reading {
  std::vector<LogPosition> entries;
  std::vector<std::pair<LogPosition, LogPosition>> holes; /* skipped after -EBADMSG */
  int wrong = 0;                                          /* not as appended, or out of order */
  bool operator==(const Reading &) const = default;
};
Reading read_log(const Log &log, LogPosition from = 1);
/* Of entries without holes. */
Reading whole_reading(LogPosition from, LogPosition end);

/* The right checksum of the segment header that `bytes` begins with. */
std::uint64_t header_checksum_of(const std::string &bytes);

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &bytes);
/* Every file below with its content and name. */
std::vector<std::pair<std::string, std::string>> snapshot(const std::string &directory);

}  // namespace tarn::test

#endif
