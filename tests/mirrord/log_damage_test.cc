// SPDX-License-Identifier: GPL-2.0
// Logs that were cut, changed or robbed of files: what is intact is read, what is not is said, and
// the log can be used.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>

#include "mirrord/log/format.h"
#include "tests/mirrord/log_kit.h"

namespace tarn {
namespace {

using namespace test;
namespace fs = std::filesystem;

constexpr int kEntries = 30;
constexpr LogPosition kEnd = kEntries + 1;

class LogDamage : public testing::Test {
 protected:
  LogDamage() {
    append_many(*open_log(dir_.log(), kSmallSegments), kEntries);
    segments_ = dir_.segments();
    for (const LogPosition first : segments_) intact_.push_back(read_file(dir_.segment(first)));
  }

  /* The log as it was, but for one segment. */
  void put(std::size_t changed, const std::string &bytes) {
    fs::remove_all(dir_.log());
    fs::create_directory(dir_.log());
    for (std::size_t i = 0; i < segments_.size(); ++i)
      write_file(dir_.segment(segments_[i]), i == changed ? bytes : intact_[i]);
  }

  /* Where each entry of a segment ends. */
  std::vector<std::size_t> ends(std::size_t segment) const {
    std::vector<std::size_t> found;
    for (std::size_t at = sizeof(SegmentHeader); at < intact_[segment].size();) {
      std::uint32_t length;
      std::memcpy(&length, &intact_[segment][at + offsetof(EntryHeader, length)], sizeof(length));
      at += entry_bytes(length);
      found.push_back(at);
    }
    return found;
  }

  /* The log takes entries where it ends, before and after another opening, and loses nothing. */
  void expect_usable(std::unique_ptr<Log> log) {
    const Reading before = read_log(*log);
    const LogPosition end = log->end();
    for (int round = 0; round < 2; ++round) {
      append_many(*log, 3);
      const Reading reading = read_log(*log);
      EXPECT_EQ(reading.wrong, 0);
      EXPECT_EQ(reading.holes, before.holes);
      EXPECT_EQ(reading.entries.size(), log->end() - end + before.entries.size());
      EXPECT_EQ(reading.entries.back(), log->end() - 1);
      log.reset();
      log = open_log(dir_.log(), kSmallSegments);
      EXPECT_EQ(log->recovery().bytes_cut, 0u);
    }
  }

  LogDirectory dir_;
  std::vector<LogPosition> segments_;
  std::vector<std::string> intact_;
};

TEST_F(LogDamage, last_segment_may_be_cut_at_every_byte) {
  const std::size_t last = segments_.size() - 1;
  ASSERT_GT(ends(last).size(), 3u);
  for (std::size_t size = 0; size <= intact_[last].size(); ++size) {
    SCOPED_TRACE(size);
    put(last, intact_[last].substr(0, size));
    auto log = open_log(dir_.log(), kSmallSegments);
    LogPosition end = segments_[last];
    std::size_t kept = std::min(size, sizeof(SegmentHeader));
    for (const std::size_t entry_end : ends(last))
      if (entry_end <= size) {
        ++end;
        kept = entry_end;
      }
    EXPECT_EQ(log->end(), end);
    EXPECT_EQ(log->recovery().bytes_cut, size - kept);
    EXPECT_EQ(log->recovery().damage, "");
    EXPECT_EQ(read_log(*log), whole_reading(1, end));
    expect_usable(std::move(log));
  }
}

TEST_F(LogDamage, last_segment_may_end_in_zeros_from_every_byte_on) {
  const std::size_t last = segments_.size() - 1;
  for (std::size_t size = 0; size < intact_[last].size(); ++size) {
    SCOPED_TRACE(size);
    std::string bytes = intact_[last];
    std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(size), bytes.end(), '\0');
    LogPosition end = segments_[last];
    for (const std::size_t entry_end : ends(last))
      end += intact_[last].compare(0, entry_end, bytes, 0, entry_end) == 0;
    put(last, bytes);
    auto log = open_log(dir_.log(), kSmallSegments);
    EXPECT_EQ(log->end(), end);
    EXPECT_EQ(log->recovery().damage, "");
    EXPECT_EQ(read_log(*log), whole_reading(1, end));
  }
}

TEST_F(LogDamage, segment_in_the_middle_may_be_cut_at_every_byte) {
  const std::size_t middle = segments_.size() / 2;
  const LogPosition next = segments_[middle + 1];
  for (std::size_t size = 0; size < intact_[middle].size(); ++size) {
    SCOPED_TRACE(size);
    put(middle, intact_[middle].substr(0, size));
    auto log = open_log(dir_.log(), kSmallSegments);
    LogPosition from = segments_[middle];
    for (const std::size_t entry_end : ends(middle)) from += entry_end <= size;
    EXPECT_EQ(log->end(), kEnd);
    EXPECT_EQ(log->recovery().bytes_cut, 0u);
    EXPECT_NE(log->recovery().damage.find("entries " + std::to_string(from) + " to " +
                                          std::to_string(next - 1)),
              std::string::npos)
        << log->recovery().damage;
    Reading expected = whole_reading(1, from);
    const Reading rest = whole_reading(next, kEnd);
    expected.entries.insert(expected.entries.end(), rest.entries.begin(), rest.entries.end());
    expected.holes.emplace_back(from, next);
    EXPECT_EQ(read_log(*log), expected);
    expect_usable(std::move(log));
  }
}

TEST_F(LogDamage, every_flipped_bit_costs_one_entry_and_never_changes_one) {
  for (std::size_t segment = 0; segment < segments_.size(); ++segment) {
    const bool last = segment + 1 == segments_.size();
    for (std::size_t at = 0; at < intact_[segment].size(); ++at) {
      SCOPED_TRACE(std::to_string(segment) + " at " + std::to_string(at));
      std::string bytes = intact_[segment];
      bytes[at] = static_cast<char>(bytes[at] ^ 1 << at % 8);
      put(segment, bytes);
      auto log = open_log(dir_.log(), kSmallSegments);
      std::optional<LogPosition> lost;
      if (at >= sizeof(SegmentHeader)) {
        lost = segments_[segment];
        for (const std::size_t entry_end : ends(segment)) *lost += entry_end <= at;
      }
      const bool cut = last && lost == kEnd - 1;
      EXPECT_EQ(log->end(), cut ? kEnd - 1 : kEnd);
      EXPECT_EQ(log->recovery().damage.empty(), cut) << log->recovery().damage;
      EXPECT_EQ(log->recovery().bytes_cut > 0, cut);
      Reading expected = whole_reading(1, log->end());
      if (lost && !cut) {
        expected.entries.erase(expected.entries.begin() + static_cast<std::ptrdiff_t>(*lost - 1));
        expected.holes.emplace_back(*lost, *lost + 1);
      }
      EXPECT_EQ(read_log(*log), expected);
      log.reset();
      if (at % 7 != 0) continue;
      EXPECT_EQ(open_log(dir_.log())->recovery().damage.empty(), cut || !lost)
          << "a header is mended once, damaged entries stay so";
    }
  }
}

TEST_F(LogDamage, flips_below_an_open_log_are_errors_of_the_reader) {
  const std::size_t middle = segments_.size() / 2;
  const auto log = open_log(dir_.log(), kSmallSegments);
  for (std::size_t at = sizeof(SegmentHeader); at < intact_[middle].size(); at += 3) {
    std::string bytes = intact_[middle];
    bytes[at] = static_cast<char>(bytes[at] ^ 0x40);
    write_file(dir_.segment(segments_[middle]), bytes);
    LogPosition lost = segments_[middle];
    for (const std::size_t entry_end : ends(middle)) lost += entry_end <= at;
    LogReader reader(*log, lost);
    const auto entry = reader.next();
    ASSERT_FALSE(entry.ok()) << at;
    EXPECT_EQ(entry.error().code, -EBADMSG);
    EXPECT_EQ(reader.position(), lost);
    EXPECT_EQ(reader.next().error().code, -EBADMSG) << "the reader stays there";
    EXPECT_EQ(*reader.skip_damage(), lost + 1);
    EXPECT_EQ((*reader.next())->position, lost + 1);
    LogReader behind(*log, lost + 1);
    EXPECT_EQ((*behind.next())->position, lost + 1) << "a reader may begin behind damage";
  }
}

TEST_F(LogDamage, missing_segments_are_holes) {
  for (std::size_t gone = 0; gone < segments_.size(); ++gone) {
    SCOPED_TRACE(gone);
    put(gone, "");
    fs::remove(dir_.segment(segments_[gone]));
    auto log = open_log(dir_.log(), kSmallSegments);
    if (gone == 0) {
      EXPECT_EQ(log->first(), segments_[1]) << "as if it had been released";
      LogReader reader(*log, 1);
      EXPECT_EQ(reader.next().error().code, -ESTALE);
      continue;
    }
    if (gone + 1 == segments_.size()) {
      EXPECT_EQ(log->end(), segments_[gone]);
      LogReader reader(*log, kEnd);
      EXPECT_EQ(reader.next().error().code, -EBADMSG);
      continue;
    }
    const Reading reading = read_log(*log);
    ASSERT_EQ(reading.holes.size(), 1u);
    EXPECT_EQ(reading.holes[0], std::pair(segments_[gone], segments_[gone + 1]));
    EXPECT_EQ(reading.wrong, 0);
    EXPECT_EQ(reading.entries.size(), kEntries - (segments_[gone + 1] - segments_[gone]));
    EXPECT_NE(log->recovery().damage, "");
    LogReader inside(*log, segments_[gone] + 1);
    EXPECT_EQ(inside.next().error().code, -EBADMSG);
    EXPECT_EQ(*inside.skip_damage(), segments_[gone + 1]);
    expect_usable(std::move(log));
  }
}

TEST_F(LogDamage, segment_that_is_deleted_below_an_open_log_is_a_hole) {
  const auto log = open_log(dir_.log(), kSmallSegments);
  fs::remove(dir_.segment(segments_[1]));
  const Reading reading = read_log(*log);
  ASSERT_EQ(reading.holes.size(), 1u);
  EXPECT_EQ(reading.holes[0], std::pair(segments_[1], segments_[2]));
}

TEST_F(LogDamage, tail_of_the_segment_being_written_is_skipped_to_what_comes) {
  const auto log = open_log(dir_.log(), kSmallSegments);
  const LogPosition first = segments_.back();
  std::string bytes = read_file(dir_.segment(first));
  for (std::size_t at = bytes.size() - 16; at < bytes.size(); ++at) bytes[at] = '!';
  write_file(dir_.segment(first), bytes);
  LogReader reader(*log, kEnd - 1);
  EXPECT_EQ(reader.next().error().code, -EBADMSG);
  EXPECT_EQ(*reader.skip_damage(), kEnd);
  EXPECT_FALSE((*reader.next()).has_value());
  append_many(*log, 20);
  for (LogPosition at = kEnd; at < log->end(); ++at) {
    const auto entry = reader.next();
    ASSERT_TRUE(entry.ok() && entry->has_value());
    EXPECT_EQ((*entry)->position, at);
    EXPECT_TRUE(is_as_appended(**entry));
  }
}

TEST_F(LogDamage, copy_of_a_log_inside_an_entry_is_no_entry) {
  // What is replicated may hold the log's own segments; damage before such an entry must not bring
  // its content up.
  fs::remove_all(dir_.log());
  auto log = open_log(dir_.log());
  append_many(*log, 10);
  const std::string copy = read_file(dir_.segment(1));
  for (std::size_t shift = 0; shift < 64; shift += 4) {
    const std::string text = std::string(shift, ' ') + copy;
    const Bytes part = std::as_bytes(std::span(text));
    ASSERT_TRUE(log->append(1, std::span(&part, 1)).ok());
  }
  const LogPosition end = log->end();
  log.reset();
  std::string bytes = read_file(dir_.segment(1));
  for (std::size_t at = sizeof(SegmentHeader); at + 8 < bytes.size(); at += entry_bytes(0)) {
    std::uint32_t length;
    std::memcpy(&length, &bytes[at + 8], sizeof(length));
    bytes[at] = static_cast<char>(bytes[at] ^ 1);
    at += entry_bytes(length) - entry_bytes(0);
  }
  write_file(dir_.segment(1), bytes);
  log = open_log(dir_.log());
  EXPECT_EQ(log->end(), 1u) << "of " << end << ": every entry is damaged, and none comes back";
}

TEST_F(LogDamage, only_segment_without_a_header_is_refused_and_kept) {
  fs::remove_all(dir_.log());
  append_many(*open_log(dir_.log()), 10);
  const std::string bytes = read_file(dir_.segment(1));
  for (std::size_t size : {std::size_t{0}, std::size_t{1}, sizeof(SegmentHeader) - 1}) {
    write_file(dir_.segment(1), bytes.substr(0, size));
    const auto log = Log::open(dir_.log(), {});
    ASSERT_FALSE(log.ok());
    EXPECT_EQ(log.error().code, -EBADMSG);
    EXPECT_EQ(read_file(dir_.segment(1)).size(), size);
  }
}

TEST_F(LogDamage, segment_that_reaches_into_the_next_is_read_up_to_there) {
  // The first segment again as it would be had there been no second one.
  fs::remove_all(dir_.log());
  auto log = open_log(dir_.log(), {1 << 20, 4096});
  append_many(*log, kEntries);
  ASSERT_EQ(dir_.segments().size(), 1u);
  log.reset();
  const std::string bytes = read_file(dir_.segment(1));
  const auto first = reinterpret_cast<const std::uint8_t *>(bytes.data());
  Uuid epoch;
  std::copy(first + 16, first + 32, epoch.bytes.begin());
  const SegmentHeader header = make_segment_header(epoch, 12);
  write_file(dir_.segment(12), {reinterpret_cast<const char *>(&header), sizeof(header)});
  log = open_log(dir_.log());
  EXPECT_EQ(log->end(), 12u);
  EXPECT_EQ(read_log(*log), whole_reading(1, 12));
  EXPECT_NE(log->recovery().damage, "");
}

}  // namespace
}  // namespace tarn
