// SPDX-License-Identifier: GPL-2.0
// The log without faults: entries, segments, limits, readers, and directories that are no log.
#include "mirrord/log/log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <future>
#include <thread>

#include "mirrord/log/format.h"
#include "tests/mirrord/log_kit.h"

namespace tarn {
namespace {

using namespace test;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

Bytes bytes_of(const std::string &text) {
  return std::as_bytes(std::span(text));
}

std::string text_of(Bytes bytes) {
  return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

TEST(Log, entries_come_back_as_they_were_appended) {
  const LogDirectory dir;
  const auto log = open_log(dir.log());
  EXPECT_TRUE(log->recovery().created);
  EXPECT_EQ(log->first(), 1u);
  EXPECT_EQ(log->end(), 1u);
  std::vector<std::string> payloads = {"",
                                       "a",
                                       std::string(7, '\0'),
                                       "12345678",
                                       "end\n",
                                       std::string(70000, 'x'),
                                       std::string(3 << 20, 'y')};
  for (const std::string &payload : payloads) {
    const Bytes part = bytes_of(payload);
    const auto at = log->append(7, std::span(&part, 1));
    ASSERT_TRUE(at.ok()) << at.error().text;
    EXPECT_EQ(*at + 1, log->end());
  }
  LogReader reader(*log, 0);
  std::int64_t before = 0;
  for (const std::string &payload : payloads) {
    const auto entry = reader.next();
    ASSERT_TRUE(entry.ok() && entry->has_value());
    EXPECT_EQ((*entry)->kind, 7);
    EXPECT_GE((*entry)->time_ns, before);
    EXPECT_EQ(text_of((*entry)->payload), payload);
    before = (*entry)->time_ns;
  }
  EXPECT_NEAR(static_cast<double>(before) / 1e9, static_cast<double>(time(nullptr)), 1000);
  EXPECT_FALSE((*reader.next()).has_value());
}

/* The file of an only segment with one entry, which gets another time. */
void set_time_of_the_entry(const std::string &file, std::int64_t time_ns) {
  std::string bytes = read_file(file);
  EntryHeader header;
  std::memcpy(&header, &bytes[sizeof(SegmentHeader)], sizeof(header));
  header.time_ns = time_ns;
  const std::string payload = bytes.substr(sizeof(SegmentHeader) + sizeof(header), header.length);
  const Bytes part = bytes_of(payload);
  seal_entry(header, header_checksum_of(bytes) + sizeof(SegmentHeader), std::span(&part, 1));
  std::memcpy(&bytes[sizeof(SegmentHeader)], &header, sizeof(header));
  write_file(file, bytes);
}

TEST(Log, times_only_grow_though_the_clock_was_set_back) {
  const LogDirectory dir;
  append_many(*open_log(dir.log()), 1);
  const std::int64_t later = (time(nullptr) + 5000) * std::int64_t{1000000000};
  set_time_of_the_entry(dir.segment(1), later);
  const auto log = open_log(dir.log());
  ASSERT_EQ(log->recovery().bytes_cut, 0u);
  EXPECT_GE(log->now_ns(), later);
  append_many(*log, 1);
  LogReader reader(*log, 1);
  ASSERT_EQ((*reader.next())->time_ns, later);
  const std::int64_t second = (*reader.next())->time_ns;
  EXPECT_GE(second, later);
  EXPECT_LE(second, log->now_ns());
  EXPECT_LT(log->now_ns(), later + 1000 * std::int64_t{1000000000});
}

TEST(Log, payload_of_many_parts_is_one) {
  const LogDirectory dir;
  const auto log = open_log(dir.log());
  for (const std::size_t count : {0u, 1u, 5u, 6u, 7u, 14u, 15u, 16u, 17u, 40u, 1500u}) {
    std::vector<std::string> texts;
    std::vector<Bytes> parts;
    std::string all;
    for (std::size_t i = 0; i < count; ++i)
      texts.push_back(std::string(i % 4, static_cast<char>('a' + i % 26)));
    for (const std::string &text : texts) {
      parts.push_back(bytes_of(text));
      all += text;
    }
    ASSERT_TRUE(log->append(1, parts).ok());
    LogReader reader(*log, log->end() - 1);
    const auto entry = reader.next();
    ASSERT_TRUE(entry.ok()) << count << ": " << entry.error().text;
    EXPECT_EQ(text_of((*entry)->payload), all) << count;
  }
}

TEST(Log, goes_on_where_it_was) {
  const LogDirectory dir;
  Uuid epoch;
  for (int round = 0; round < 5; ++round) {
    const auto log = open_log(dir.log(), kSmallSegments);
    EXPECT_EQ(log->recovery().created, round == 0);
    EXPECT_EQ(log->recovery().damage, "");
    EXPECT_EQ(log->recovery().bytes_cut, 0u);
    if (round > 0) {
      EXPECT_EQ(log->epoch(), epoch);
    }
    epoch = log->epoch();
    EXPECT_EQ(log->end(), 1u + 50u * static_cast<unsigned>(round));
    EXPECT_EQ(log->durable_end(), log->end());
    append_many(*log, 50);
    EXPECT_EQ(read_log(*log), whole_reading(1, log->end()));
    EXPECT_EQ(read_log(*log, 23), whole_reading(23, log->end()));
  }
  EXPECT_GT(dir.segments().size(), 10u);
}

TEST(Log, two_logs_differ_in_epoch) {
  const LogDirectory dir;
  EXPECT_NE(open_log(dir / "a")->epoch(), open_log(dir / "b")->epoch());
}

TEST(Log, durable_end_moves_with_sync_only) {
  const LogDirectory dir;
  const auto log = open_log(dir.log(), kSmallSegments);
  append_many(*log, 40);
  EXPECT_EQ(log->durable_end(), 1u);
  ASSERT_TRUE(log->sync().ok());
  EXPECT_EQ(log->durable_end(), 41u);
  append_many(*log, 1);
  EXPECT_EQ(log->durable_end(), 41u);
  ASSERT_TRUE(log->sync().ok());
  ASSERT_TRUE(log->sync().ok());
  EXPECT_EQ(log->durable_end(), 42u);
}

TEST(Log, size_is_that_of_its_files) {
  const LogDirectory dir;
  auto log = open_log(dir.log(), kSmallSegments);
  append_many(*log, 100);
  for (const LogPosition before : {1u, 50u, 101u}) {
    ASSERT_TRUE(log->release(before).ok());
    std::uint64_t sum = 0;
    for (const LogPosition first : dir.segments()) sum += fs::file_size(dir.segment(first));
    EXPECT_EQ(log->bytes(), sum);
  }
  const std::uint64_t bytes = log->bytes();
  log.reset();
  EXPECT_EQ(open_log(dir.log())->bytes(), bytes);
}

TEST(Log, bytes_after_a_position_shrink_to_nothing) {
  const LogDirectory dir;
  const auto log = open_log(dir.log(), kSmallSegments);
  append_many(*log, 100);
  std::uint64_t before = log->bytes();
  for (LogPosition at = 1; at <= log->end(); ++at) {
    const std::uint64_t after = log->bytes_after(at);
    EXPECT_LT(after, before);
    EXPECT_LT(before - after, 400u + sizeof(SegmentHeader) * 30);
    before = after;
  }
  EXPECT_EQ(log->bytes_after(log->end()), 0u);
  EXPECT_EQ(log->bytes_after(log->end() + 5), 0u);
}

TEST(Log, released_segments_are_gone_and_readers_told) {
  const LogDirectory dir;
  auto log = open_log(dir.log(), kSmallSegments);
  append_many(*log, 100);
  LogReader slow(*log, 1);
  ASSERT_TRUE(slow.next().ok());
  const std::vector<LogPosition> segments = dir.segments();
  ASSERT_TRUE(log->release(segments[3] - 1).ok());
  EXPECT_EQ(log->first(), segments[2]) << "the segment of an entry that is kept stays";
  ASSERT_TRUE(log->release(segments[3]).ok());
  EXPECT_EQ(log->first(), segments[3]);
  EXPECT_EQ(dir.segments().front(), segments[3]);
  const auto entry = slow.next();
  ASSERT_FALSE(entry.ok());
  EXPECT_EQ(entry.error().code, -ESTALE);
  EXPECT_EQ(slow.position(), 2u);
  EXPECT_EQ(*slow.skip_damage(), segments[3]);
  EXPECT_EQ((*slow.next())->position, segments[3]);

  ASSERT_TRUE(log->release(1000).ok());
  EXPECT_EQ(dir.segments(), std::vector<LogPosition>{segments.back()});
  EXPECT_EQ(read_log(*log, log->first()), whole_reading(segments.back(), 101));
  log.reset();
  log = open_log(dir.log());
  EXPECT_EQ(log->recovery().damage, "");
  EXPECT_EQ(log->first(), segments.back());
  EXPECT_EQ(log->end(), 101u);
}

TEST(Log, release_syncs_the_segment_that_stays) {
  const LogDirectory dir;
  const auto log = open_log(dir.log(), kSmallSegments);
  append_many(*log, 100);
  ASSERT_EQ(log->durable_end(), 1u);
  ASSERT_TRUE(log->release(log->end()).ok());
  EXPECT_EQ(log->durable_end(), 101u);
}

TEST(Log, limit_refuses_and_a_release_makes_room) {
  const LogDirectory dir;
  auto log = open_log(dir.log(), {8192, 1 << 20});
  for (int round = 0; round < 5; ++round) {
    Result<LogPosition> done = LogPosition{0};
    while ((done = append_next(*log)).ok()) EXPECT_LE(log->bytes(), 8192u);
    EXPECT_EQ(done.error().code, -ENOSPC) << done.error().text;
    EXPECT_NE(done.error().text.find("8192"), std::string::npos) << done.error().text;
    EXPECT_GT(log->bytes(), 8192u - 200);
    EXPECT_EQ(read_log(*log, log->first()), whole_reading(log->first(), log->end()));
    ASSERT_TRUE(log->release(log->end()).ok());
    EXPECT_LT(log->bytes(), 4096u);
    ASSERT_TRUE(append_next(*log).ok());
    log.reset();
    log = open_log(dir.log(), {8192, 1 << 20});
  }
}

TEST(Log, entry_that_can_never_fit_is_refused_as_such) {
  const LogDirectory dir;
  const auto log = open_log(dir.log(), {8192, 1 << 20});
  const std::string large(8192 / 4, 'x');
  const Bytes part = bytes_of(large);
  const auto done = log->append(1, std::span(&part, 1));
  ASSERT_FALSE(done.ok());
  EXPECT_EQ(done.error().code, -EMSGSIZE);
  EXPECT_EQ(log->end(), 1u);
  const Bytes most = part.first(8192 / 4 - 128);
  EXPECT_TRUE(log->append(1, std::span(&most, 1)).ok()) << "what the text says fits";
}

TEST(Log, wait_ends_by_an_entry_a_wake_or_time) {
  const LogDirectory dir;
  const auto log = open_log(dir.log());
  append_many(*log, 1);
  EXPECT_TRUE(log->wait(1, 0ms)) << "there is one already";
  EXPECT_FALSE(log->wait(2, 1ms));
  auto waiting = std::async(std::launch::async, [&] { return log->wait(2, 1h); });
  EXPECT_EQ(waiting.wait_for(20ms), std::future_status::timeout);
  append_many(*log, 1);
  EXPECT_TRUE(waiting.get());
  waiting = std::async(std::launch::async, [&] { return log->wait(3, 1h); });
  while (waiting.wait_for(1ms) == std::future_status::timeout) log->wake();
  EXPECT_FALSE(waiting.get());
}

TEST(Log, reader_behind_the_end_says_so) {
  const LogDirectory dir;
  const auto log = open_log(dir.log());
  append_many(*log, 3);
  LogReader reader(*log, 6);
  append_many(*log, 5);
  const auto entry = reader.next();
  ASSERT_FALSE(entry.ok()) << "entries 4 and 5 are others than those that were read";
  EXPECT_EQ(entry.error().code, -EBADMSG);
  LogReader early(*log, 12);
  EXPECT_FALSE(early.next().ok());
  EXPECT_EQ(*early.skip_damage(), 9u);
  append_many(*log, 1);
  EXPECT_EQ((*early.next())->position, 9u);
}

TEST(Log, readers_beside_an_appender_see_every_entry) {
  const LogDirectory dir;
  const auto log = open_log(dir.log(), {64 << 20, 20000});
  constexpr LogPosition kEnd = 20001;
  std::vector<std::future<int>> readers;
  for (int i = 0; i < 3; ++i)
    readers.push_back(std::async(std::launch::async, [&] {
      LogReader reader(*log, 1);
      while (reader.position() < kEnd) {
        const LogPosition at = reader.position();
        const auto entry = reader.next();
        if (!entry) return -1;
        if (!*entry)
          static_cast<void>(log->wait(at, 1s));
        else if ((*entry)->position != at || !is_as_appended(**entry))
          return -2;
      }
      return 0;
    }));
  std::future<bool> syncs = std::async(std::launch::async, [&] {
    while (log->durable_end() < kEnd) {
      const LogPosition before = log->end();
      if (!log->sync() || log->durable_end() < before) return false;
    }
    return true;
  });
  append_many(*log, kEnd - 1);
  for (auto &reader : readers) EXPECT_EQ(reader.get(), 0);
  EXPECT_TRUE(syncs.get());
}

TEST(Log, appenders_share_the_positions) {
  const LogDirectory dir;
  const auto log = open_log(dir.log(), {64 << 20, 20000});
  std::vector<std::future<bool>> appenders;
  for (unsigned char kind = 0; kind < 4; ++kind)
    appenders.push_back(std::async(std::launch::async, [&log, kind] {
      for (int i = 0; i < 2000; ++i) {
        const std::string text = std::to_string(i);
        const Bytes part = bytes_of(text);
        if (!log->append(kind, std::span(&part, 1))) return false;
      }
      return true;
    }));
  for (auto &appender : appenders) EXPECT_TRUE(appender.get());
  int next[4] = {};
  LogReader reader(*log, 1);
  for (LogPosition at = 1; at <= 8000; ++at) {
    const auto entry = reader.next();
    ASSERT_TRUE(entry.ok() && entry->has_value());
    EXPECT_EQ(text_of((*entry)->payload), std::to_string(next[(*entry)->kind]++));
  }
}

TEST(Log, release_beside_a_reader_never_shows_damage) {
  const LogDirectory dir;
  const auto log = open_log(dir.log(), {64 << 20, 512});
  std::atomic<bool> done = false;
  std::future<int> reading = std::async(std::launch::async, [&] {
    LogReader reader(*log, 1);
    for (;;) {
      const bool last = done;
      const auto entry = reader.next();
      if (!entry && entry.error().code != -ESTALE) return 1;
      if (!entry && !reader.skip_damage()) return 2;
      if (entry && *entry && !is_as_appended(**entry)) return 3;
      if (entry && !*entry && last) return 0;
    }
  });
  for (int i = 0; i < 300; ++i) {
    append_many(*log, 20);
    ASSERT_TRUE(log->release(log->end()).ok());
  }
  done = true;
  EXPECT_EQ(reading.get(), 0);
}

/* Opening must fail and change nothing. */
void expect_refused(const LogDirectory &dir, int code, const std::string &said) {
  const auto before = snapshot(dir.log());
  const auto log = Log::open(dir.log(), {});
  ASSERT_FALSE(log.ok());
  EXPECT_EQ(log.error().code, code) << log.error().text;
  EXPECT_NE(log.error().text.find(said), std::string::npos) << log.error().text;
  EXPECT_EQ(log.error().text.find('\n'), std::string::npos);
  EXPECT_EQ(snapshot(dir.log()), before);
}

TEST(LogOpen, second_opening_is_refused) {
  const LogDirectory dir;
  const auto log = open_log(dir.log());
  expect_refused(dir, -EBUSY, "open");
  append_many(*log, 1);
}

TEST(LogOpen, directory_of_another_user_is_refused) {
  const LogDirectory dir;
  open_log(dir.log());
  if (geteuid() != 0) GTEST_SKIP() << "only root can give a directory away";
  ASSERT_EQ(chown(dir.log().c_str(), 4711, 4711), 0);
  expect_refused(dir, -EPERM, "4711");
}

TEST(LogOpen, missing_parent_and_tiny_limit_are_said) {
  const LogDirectory dir;
  const auto log = Log::open(dir / "a/b", {});
  ASSERT_FALSE(log.ok());
  EXPECT_EQ(log.error().code, -ENOENT);
  EXPECT_EQ(Log::open(dir.log(), {4095, 4095}).error().code, -EINVAL);
  EXPECT_FALSE(fs::exists(dir.log()));
}

TEST(LogOpen, directory_and_files_are_the_owners_own) {
  const LogDirectory dir;
  append_many(*open_log(dir.log()), 1);
  struct stat status;
  ASSERT_EQ(stat(dir.log().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777u, 0700u);
  ASSERT_EQ(stat(dir.segment(1).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777u, 0600u);
}

TEST(LogOpen, another_version_is_refused) {
  const LogDirectory dir;
  append_many(*open_log(dir.log()), 3);
  std::string bytes = read_file(dir.segment(1));
  // The checksum of a version is its own writer's: take one of a header with that version.
  bytes[8] = 2;
  write_file(dir.segment(1), bytes);
  expect_refused(dir, -EBADMSG, "no segment");
  const std::uint64_t checksum = header_checksum_of(bytes);
  bytes.replace(40, 8, reinterpret_cast<const char *>(&checksum), 8);
  write_file(dir.segment(1), bytes);
  expect_refused(dir, -EPROTO, "version 2");
}

TEST(LogOpen, segments_of_two_logs_are_refused) {
  const LogDirectory dir, other;
  append_many(*open_log(dir.log(), kSmallSegments), 100);
  append_many(*open_log(other.log(), kSmallSegments), 100);
  const LogPosition third = dir.segments()[2];
  ASSERT_EQ(dir.segments(), other.segments());
  fs::copy_file(other.segment(third), dir.segment(third), fs::copy_options::overwrite_existing);
  expect_refused(dir, -EINVAL, "different logs");
}

TEST(LogOpen, renamed_segment_is_refused) {
  const LogDirectory dir;
  append_many(*open_log(dir.log(), kSmallSegments), 100);
  fs::rename(dir.segment(dir.segments()[2]), dir.segment(4711));
  expect_refused(dir, -EINVAL, "renamed");
}

TEST(LogOpen, what_is_no_regular_file_is_refused) {
  const LogDirectory dir;
  append_many(*open_log(dir.log(), kSmallSegments), 100);
  fs::create_directory(dir.segment(4711));
  expect_refused(dir, -EISDIR, "4711");
  fs::remove(dir.segment(4711));
  fs::create_symlink(dir.segment(1), dir.segment(4711));
  expect_refused(dir, -ELOOP, "4711");
  fs::remove(dir.segment(4711));
  ASSERT_EQ(mkfifo(dir.segment(4711).c_str(), 0600), 0);
  expect_refused(dir, -EINVAL, "no regular file");
}

TEST(LogOpen, other_names_are_left_alone) {
  const LogDirectory dir;
  append_many(*open_log(dir.log()), 3);
  const std::string others[] = {"positions", "1.log", "0000000000000000000x.log",
                                "00000000000000000000.log", "00000000000000000004.log.gz"};
  for (const std::string &name : others) write_file(dir.log() + "/" + name, "mine");
  write_file(dir.log() + "/" + kTemporaryName, "left by an interrupted creation");
  EXPECT_EQ(read_log(*open_log(dir.log())), whole_reading(1, 4));
  for (const std::string &name : others) EXPECT_EQ(read_file(dir.log() + "/" + name), "mine");
  EXPECT_FALSE(fs::exists(dir.log() + "/" + kTemporaryName));
}

}  // namespace
}  // namespace tarn
