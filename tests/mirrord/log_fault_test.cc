// SPDX-License-Identifier: GPL-2.0
// A log on a disk that is full or fails, and one whose process is killed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>

#include "base/unique_fd.h"
#include "mirrord/log/format.h"
#include "tests/mirrord/log_kit.h"

namespace {

std::atomic<int> failing_syncs = 0;
std::atomic<int> good_syncs = 0; /* before those */
std::function<void(int fd)> at_failing_sync;

}  // namespace

// In place of libc's in this program: the next ones fail, as for a disk that refuses the data.
extern "C" int fdatasync(int fd) {
  if (good_syncs > 0) {
    --good_syncs;
  } else if (failing_syncs > 0) {
    --failing_syncs;
    if (at_failing_sync) at_failing_sync(fd);
    errno = EIO;
    return -1;
  }
  return static_cast<int>(syscall(SYS_fdatasync, fd));
}

namespace tarn {
namespace {

using namespace test;
namespace fs = std::filesystem;

class LogFault : public testing::Test {
 protected:
  ~LogFault() override {
    good_syncs = failing_syncs = 0;
    at_failing_sync = nullptr;
  }
  LogDirectory dir_;
};

TEST_F(LogFault, failed_sync_confirms_nothing_and_the_next_writes_anew) {
  auto log = open_log(dir_.log(), {1 << 20, 64 << 10});
  append_many(*log, 10);
  ASSERT_TRUE(log->sync().ok());
  append_many(*log, 10);
  struct stat before, after;
  ASSERT_EQ(stat(dir_.segment(1).c_str(), &before), 0);
  failing_syncs = 1;
  const auto failed = log->sync();
  ASSERT_FALSE(failed.ok());
  EXPECT_EQ(failed.error().code, -EIO);
  EXPECT_NE(failed.error().text.find("entries 11 and later"), std::string::npos)
      << failed.error().text;
  EXPECT_EQ(log->durable_end(), 11u);

  append_many(*log, 10);
  EXPECT_EQ(dir_.segments(), (std::vector<LogPosition>{1, 21})) << "appended to a new segment";
  EXPECT_EQ(read_log(*log), whole_reading(1, 31));
  ASSERT_TRUE(log->sync().ok());
  EXPECT_EQ(log->durable_end(), 31u);
  ASSERT_EQ(stat(dir_.segment(1).c_str(), &after), 0);
  EXPECT_NE(before.st_ino, after.st_ino) << "another file is in its place";
  EXPECT_FALSE(fs::exists(dir_.log() + "/" + kTemporaryName));
  EXPECT_EQ(read_log(*log), whole_reading(1, 31));
  append_many(*log, 10);
  ASSERT_TRUE(log->sync().ok());
  log.reset();
  log = open_log(dir_.log());
  EXPECT_EQ(log->recovery().damage, "");
  EXPECT_EQ(read_log(*log), whole_reading(1, 41));
}

TEST_F(LogFault, sync_that_fails_again_and_again_confirms_nothing) {
  const auto log = open_log(dir_.log(), kSmallSegments);
  append_many(*log, 100);
  for (int round = 0; round < 4; ++round) {
    failing_syncs = 1;
    EXPECT_FALSE(log->sync().ok());
    EXPECT_EQ(log->durable_end(), 1u);
    append_many(*log, 1);
  }
  failing_syncs = 0;
  ASSERT_TRUE(log->sync().ok());
  EXPECT_EQ(log->durable_end(), log->end());
  EXPECT_EQ(read_log(*log), whole_reading(1, 105));
}

TEST_F(LogFault, each_segment_s_sync_fails_once) {
  for (unsigned nth = 0; nth < 12; ++nth) {
    SCOPED_TRACE(nth);
    const LogDirectory dir;
    const auto log = open_log(dir.log(), kSmallSegments);
    append_many(*log, 100);
    good_syncs = static_cast<int>(nth);
    failing_syncs = 1;
    EXPECT_FALSE(log->sync().ok());
    EXPECT_EQ(log->durable_end(), dir.segments()[nth]);
    ASSERT_TRUE(log->sync().ok());
    EXPECT_EQ(log->durable_end(), 101u);
    EXPECT_EQ(read_log(*log), whole_reading(1, 101));
  }
}

TEST_F(LogFault, entries_that_the_kernel_has_dropped_are_never_confirmed) {
  auto log = open_log(dir_.log(), {1 << 20, 64 << 10});
  append_many(*log, 10);
  ASSERT_TRUE(log->sync().ok());
  const auto durable = static_cast<off_t>(fs::file_size(dir_.segment(1)));
  append_many(*log, 10);
  at_failing_sync = [&](int) {
    std::string bytes = read_file(dir_.segment(1));
    std::fill(bytes.begin() + durable + 100, bytes.begin() + durable + 200, '\0');
    write_file(dir_.segment(1), bytes);
  };
  failing_syncs = 1;
  EXPECT_FALSE(log->sync().ok());
  at_failing_sync = nullptr;
  append_many(*log, 10);
  for (int round = 0; round < 3; ++round) {
    const auto again = log->sync();
    ASSERT_FALSE(again.ok());
    EXPECT_EQ(again.error().code, -EIO);
    EXPECT_NE(again.error().text.find("lost entries"), std::string::npos) << again.error().text;
    EXPECT_EQ(log->durable_end(), 11u);
  }
  const Reading reading = read_log(*log);
  EXPECT_EQ(reading.holes.size(), 1u);
  EXPECT_EQ(reading.wrong, 0);
  EXPECT_EQ(reading.entries.back(), 30u);
  log.reset();
  log = open_log(dir_.log());
  EXPECT_NE(log->recovery().damage, "");
  EXPECT_EQ(read_log(*log), reading);
  EXPECT_EQ(log->durable_end(), 31u);
  append_many(*log, 1);
  EXPECT_TRUE(log->sync().ok());
}

TEST_F(LogFault, damage_from_before_does_not_hinder_the_writing_anew) {
  auto log = open_log(dir_.log(), {1 << 20, 64 << 10});
  append_many(*log, 10);
  ASSERT_TRUE(log->sync().ok());
  std::string bytes = read_file(dir_.segment(1));
  bytes[100] = static_cast<char>(bytes[100] ^ 1);
  write_file(dir_.segment(1), bytes);
  const Reading before = read_log(*log);
  ASSERT_EQ(before.holes.size(), 1u);
  append_many(*log, 10);
  failing_syncs = 1;
  EXPECT_FALSE(log->sync().ok());
  EXPECT_TRUE(log->sync().ok());
  EXPECT_EQ(log->durable_end(), 21u);
  EXPECT_EQ(read_log(*log).holes, before.holes);
}

/* Appends while files of this process may not grow beyond `size`. */
Result<LogPosition> append_limited(Log &log, rlim_t size) {
  const sighandler_t handler = signal(SIGXFSZ, SIG_IGN);
  rlimit before;
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit now{size, before.rlim_max};
  setrlimit(RLIMIT_FSIZE, &now);
  auto done = append_next(log);
  setrlimit(RLIMIT_FSIZE, &before);
  signal(SIGXFSZ, handler);
  return done;
}

TEST_F(LogFault, entry_that_did_not_fit_as_a_whole_leaves_nothing) {
  auto log = open_log(dir_.log());
  append_many(*log, 5);
  const auto size = fs::file_size(dir_.segment(1));
  for (std::uint64_t room = 0; room < entry_bytes(payload_at(6).size()); ++room) {
    const auto done = append_limited(*log, size + room);
    ASSERT_FALSE(done.ok()) << room;
    EXPECT_EQ(done.error().code, -ENOSPC) << done.error().text;
    EXPECT_EQ(fs::file_size(dir_.segment(1)), size) << room;
    EXPECT_EQ(log->end(), 6u);
    EXPECT_EQ(log->bytes(), size);
  }
  append_many(*log, 3);
  log.reset();
  log = open_log(dir_.log());
  EXPECT_EQ(log->recovery().bytes_cut, 0u);
  EXPECT_EQ(read_log(*log), whole_reading(1, 9));
}

TEST_F(LogFault, segment_that_could_not_be_begun_leaves_nothing) {
  auto log = open_log(dir_.log(), kSmallSegments);
  while (fs::file_size(dir_.segment(1)) + entry_bytes(payload_at(log->end()).size()) <= 512)
    append_many(*log, 1);
  const LogPosition next = log->end();
  const std::uint64_t need = entry_bytes(payload_at(next).size());
  for (std::uint64_t size = 0; size < sizeof(SegmentHeader) + need; ++size) {
    const auto done = append_limited(*log, size);
    ASSERT_FALSE(done.ok()) << size;
    EXPECT_EQ(done.error().code, -ENOSPC) << done.error().text;
    EXPECT_EQ(dir_.segments(), std::vector<LogPosition>{1}) << size;
    EXPECT_EQ(log->end(), next);
  }
  append_many(*log, 3);
  EXPECT_EQ(dir_.segments().size(), 2u);
  EXPECT_EQ(read_log(*log), whole_reading(1, next + 3));
}

TEST_F(LogFault, full_disk_takes_entries_again_when_there_is_room) {
  fs::create_directory(dir_ / "small");
  if (mount("tarn-log-test", (dir_ / "small").c_str(), "tmpfs", 0, "size=256k") != 0)
    GTEST_SKIP() << "no tmpfs can be mounted here";
  {
    auto log = open_log(dir_ / "small/log", {1 << 30, 30000});
    for (int round = 0; round < 3; ++round) {
      Result<LogPosition> done = LogPosition{0};
      while ((done = append_next(*log)).ok()) {
      }
      EXPECT_EQ(done.error().code, -ENOSPC) << done.error().text;
      EXPECT_TRUE(log->sync().ok()) << "what was appended can be confirmed on a full disk";
      EXPECT_EQ(read_log(*log, log->first()), whole_reading(log->first(), log->end()));
      const LogPosition end = log->end();
      log.reset();
      log = open_log(dir_ / "small/log", {1 << 30, 30000});
      EXPECT_EQ(log->recovery().bytes_cut, 0u);
      EXPECT_EQ(log->recovery().damage, "");
      EXPECT_EQ(log->end(), end);
      ASSERT_TRUE(log->release(end).ok());
      append_many(*log, 10);
    }
  }
  EXPECT_EQ(umount((dir_ / "small").c_str()), 0);
}

/* Appends and syncs for ever; says what it has confirmed. */
[[noreturn]] void append_for_ever(const std::string &directory, int report) {
  const auto log = open_log(directory, {1 << 30, 20000});
  for (;;) {
    append_many(*log, 1 + static_cast<int>(log->end() % 40));
    if (!log->sync()) _exit(1);
    const LogPosition confirmed[] = {log->durable_end()};
    if (write(report, confirmed, sizeof(confirmed)) != sizeof(confirmed)) _exit(2);
    if (log->end() > 3000 && !log->release(log->end() - 2000)) _exit(3);
  }
}

TEST_F(LogFault, killed_process_leaves_all_that_it_had_confirmed) {
  LogPosition confirmed = 1;
  for (int round = 0; round < 15; ++round) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const UniqueFd from(ends[0]);
    const pid_t child = fork();
    if (child == 0) append_for_ever(dir_.log(), ends[1]);
    close(ends[1]);
    const LogPosition before = confirmed;
    for (int reports = 1 + round * 3; reports > 0; --reports)
      ASSERT_EQ(read(from.get(), &confirmed, sizeof(confirmed)), ssize_t{sizeof(confirmed)});
    usleep(static_cast<useconds_t>(round * 311));
    kill(child, SIGKILL);
    int status;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << status;
    while (read(from.get(), &confirmed, sizeof(confirmed)) == ssize_t{sizeof(confirmed)}) {
    }
    EXPECT_GT(confirmed, before);
    const auto log = open_log(dir_.log(), {1 << 30, 20000});
    EXPECT_EQ(log->recovery().damage, "");
    ASSERT_GE(log->end(), confirmed);
    EXPECT_EQ(read_log(*log, log->first()), whole_reading(log->first(), log->end()));
  }
}

}  // namespace
}  // namespace tarn
