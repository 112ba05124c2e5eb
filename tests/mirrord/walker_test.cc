// SPDX-License-Identifier: GPL-2.0
// Which directories a walk tells targets to look at, and when it walks.
#include "mirrord/service/walker.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <set>
#include <thread>

#include "base/mutex.h"
#include "mirrord/file_status.h"
#include "tests/mirrord/service_kit.h"
#include "tests/replicate/fake_tarnd.h"
#include "tests/replicate/run_program.h"

namespace {

std::atomic<const char *> failing_name = nullptr;

/* The names that have been looked at. */
tarn::Mutex asked_mutex;
std::set<std::string> asked GUARDED_BY(asked_mutex);
void note_asked(const char *name) {
  const tarn::MutexLock lock(asked_mutex);
  asked.insert(name);
}

}  // namespace

// In place of libc's in this program: a disk does not tell about that name.
extern "C" int fstatat(int directory, const char *path, struct stat *status, int flags) noexcept {
  note_asked(path);
  const char *failing = failing_name;
  if (failing != nullptr && strcmp(path, failing) == 0) {
    errno = EIO;
    return -1;
  }
  return static_cast<int>(syscall(SYS_newfstatat, directory, path, status, flags));
}

extern "C" int openat(int directory, const char *path, int flags, ...) {
  note_asked(path);
  va_list more;
  va_start(more, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(more, mode_t) : 0;
  va_end(more);
  return static_cast<int>(syscall(SYS_openat, directory, path, flags, mode));
}

namespace tarn {
namespace {

using namespace test;
namespace fs = std::filesystem;
using Paths = std::multiset<std::string>;

struct Walk {
  WalkBeginEntry begin;
  LogPosition position = 0;
  Paths looks, unread;
  std::optional<bool> complete; /* nothing: it has not ended */
};

class WalkerTest : public testing::Test {
 protected:
  WalkerTest() {
    for (const char *name : {"a/b/c", "a/d", "e"}) fs::create_directories(source_ + "/" + name);
    std::ofstream(source_ + "/a/b/f") << "x";
    fs::create_symlink("a", source_ + "/link");
    intake_ = open_intake(dir_ / "s", limit_);
  }
  ~WalkerTest() override { walker_.reset(); }

  void start(
      std::function<bool(const std::string &)> included = [](auto &) { return true; },
      std::uint64_t files_per_second = 0) {
    walker_ =
        std::make_unique<Walker>(Walker::Options{.name = "s",
                                                 .directory = source_,
                                                 .included = std::move(included),
                                                 .followed =
                                                     [this](const std::set<std::string> &targets) {
                                                       MutexLock lock(mutex_);
                                                       asked_of_ = targets;
                                                       return followed_.load();
                                                     },
                                                 .files_per_second = files_per_second,
                                                 .walked = [this] { ++walked_; }},
                                 *intake_);
  }
  std::vector<Walk> walks() const {
    std::vector<Walk> walks;
    for (const LoggedEntry &entry : entries_of(intake_->log())) {
      if (entry.kind == EntryKind::kWalkBegin) {
        walks.push_back({*decode_walk_begin(entry.bytes()), entry.position, {}, {}, {}});
      } else if (entry.kind == EntryKind::kLook) {
        const LookEntry look = *decode_look(entry.bytes());
        EXPECT_EQ(look.walk, walks.back().begin.walk);
        if (look.done == LookEntry::kUnread) {
          walks.back().unread.insert(look.directory);
          continue;
        }
        EXPECT_LE(look.done, LookEntry::kWhole);
        walks.back().looks.insert(look.directory);
      } else if (entry.kind == EntryKind::kWalkEnd) {
        const WalkEndEntry end = *decode_walk_end(entry.bytes());
        EXPECT_EQ(end.walk, walks.back().begin.walk);
        walks.back().complete = end.complete;
      }
    }
    return walks;
  }
  /* Asks, and waits for the walk. */
  Walk walk(std::int64_t since, const std::string &target = "t") {
    const int before = walked_;
    walker_->request(target, since, intake_->log().end());
    EXPECT_TRUE(eventually([&] { return walked_ == before + 1; }));
    return walks().back();
  }
  std::int64_t age_all() {
    // Change times cannot be set, and are of a coarse clock: what follows is later than this.
    usleep(50'000);
    const std::int64_t since = now_us() + kTimestampSlackUs;
    usleep(50'000);
    return since;
  }

  std::uint64_t limit_ = 1 << 24;
  Mutex mutex_;
  std::set<std::string> asked_of_ GUARDED_BY(mutex_); /* whom the last walk was for */
  std::atomic<LogPosition> followed_ = std::numeric_limits<LogPosition>::max();
  TemporaryDirectory dir_;
  const std::string source_ = dir_ / "src";
  std::atomic<int> walked_ = 0;
  std::unique_ptr<Intake> intake_;
  std::unique_ptr<Walker> walker_;
};

/* Not of the process, as the library's function does. */
long setresuid_of_thread(uid_t user) {
  return syscall(SYS_setresuid, -1, user, -1);
}

const Paths kAll = {"", "a", "a/b", "a/b/c", "a/d", "e"};

TEST_F(WalkerTest, looks_at_each_directory_once_and_at_those_above_first) {
  start();
  const Walk all = walk(kSinceEver);
  EXPECT_EQ(all.looks, kAll) << "no link is followed";
  EXPECT_EQ(all.complete, true);
  EXPECT_EQ(all.begin.since, kSinceEver);
  EXPECT_EQ(all.begin.target, "t");
  std::set<std::string> seen;
  std::uint32_t done = 0;
  for (const LoggedEntry &entry : entries_of(intake_->log())) {
    if (entry.kind != EntryKind::kLook) continue;
    const LookEntry look = *decode_look(entry.bytes());
    const auto slash = look.directory.rfind('/');
    EXPECT_TRUE(slash == std::string::npos || seen.contains(look.directory.substr(0, slash)));
    EXPECT_GE(look.done, done) << "the share only grows";
    done = look.done;
    seen.insert(look.directory);
  }
}

TEST_F(WalkerTest, looks_only_where_something_has_changed_since) {
  start();
  const std::int64_t since = age_all();
  EXPECT_EQ(walk(since).looks, Paths{});
  std::ofstream(source_ + "/a/b/f") << "yy";   // a file in it
  fs::create_directory(source_ + "/a/d/new");  // the directory itself, and the new one
  const Walk changed = walk(since);
  EXPECT_EQ(changed.looks, (Paths{"a", "a/b", "a/d", "a/d/new"}))
      << "an entry's change time counts";
  EXPECT_EQ(changed.complete, true);
}

TEST_F(WalkerTest, leaves_excluded_directories_out) {
  start([](const std::string &path) { return path != "a/b" && path != "e"; });
  EXPECT_EQ(walk(kSinceEver).looks, (Paths{"", "a", "a/d"}));
}

/* Targets that find the same gap ask at about the same time. */
TEST_F(WalkerTest, walks_once_for_requests_that_come_together) {
  start();
  const std::int64_t since = now_us() - 3'600'000'000;
  std::size_t before = 0;
  // Between the two this thread may have to wait for a processor: then they do not come together.
  for (std::chrono::steady_clock::duration apart = std::chrono::hours(1);
       apart > std::chrono::milliseconds(20);) {
    before = walks().size();
    const LogPosition end = intake_->log().end();
    const auto asked = std::chrono::steady_clock::now();
    walker_->request("t", since, end);
    walker_->request("u", since - 1000, end);
    apart = std::chrono::steady_clock::now() - asked;
    ASSERT_TRUE(eventually([&] {
      const auto made = walks();
      return made.size() > before && made.back().begin.since == since - 1000 &&
             walked_ == static_cast<int>(made.size());
    }));
  }
  const auto made = walks();
  ASSERT_EQ(made.size(), before + 1);
  EXPECT_EQ(made.back().begin.target, "") << "it is for all";
}

TEST_F(WalkerTest, does_not_repeat_a_walk_that_serves_the_request) {
  start();
  const LogPosition end = intake_->log().end();
  walker_->request("t", kSinceEver, end);
  ASSERT_TRUE(eventually([&] { return walked_ == 1; }));
  walker_->request("t", kSinceEver, end);
  walker_->request("t", now_us(), end);
  // Another target's, one behind its beginning: these are walked for.
  EXPECT_EQ(walk(kSinceEver).begin.target, "t");
  EXPECT_EQ(walks().size(), 2u);
  walker_->request("u", kSinceEver, walks()[1].position);
  ASSERT_TRUE(eventually([&] { return walked_ == 3; }));
  EXPECT_EQ(walks()[2].begin.target, "u");
  // A walk that looked only at what is new does not serve one who needs more.
  const Walk later = walk(now_us());
  walker_->request("t", kSinceEver, later.position);
  EXPECT_TRUE(eventually([&] { return walked_ == 5; }));
}

TEST_F(WalkerTest, an_unreadable_directory_is_told_and_the_rest_is_walked) {
  // Root may read it all the same: a limit on what is opened would not tell the two apart.
  if (geteuid() == 0) {
    fs::permissions(dir_.path(), fs::perms{0755});
    for (const auto &entry : fs::recursive_directory_iterator(source_))
      ASSERT_EQ(lchown(entry.path().c_str(), 65534, 65534), 0);
  }
  fs::permissions(source_ + "/a/b", fs::perms::none);
  const uid_t old = geteuid();
  // For this thread and those that it starts.
  if (old == 0) {
    ASSERT_EQ(setresuid_of_thread(65534), 0);
  }
  start();
  if (old == 0) {
    ASSERT_EQ(setresuid_of_thread(old), 0);
  }
  const Walk all = walk(kSinceEver);
  fs::permissions(source_ + "/a/b", fs::perms{0755});
  EXPECT_EQ(all.complete, false);
  EXPECT_EQ(all.looks, (Paths{"", "a", "a/d", "e"}));
  EXPECT_EQ(all.unread, Paths{"a/b"}) << "for whoever goes on behind it";
  EXPECT_EQ(walk(kSinceEver).complete, true) << "the next walk sees it";
}

/* It may be a directory, in which something has changed. */
TEST_F(WalkerTest, what_cannot_be_looked_at_is_not_passed_over) {
  start();
  const std::int64_t since = age_all();
  failing_name = "d";
  const Walk some = walk(since);
  failing_name = nullptr;
  EXPECT_EQ(some.looks, Paths{"a"});
  EXPECT_EQ(walk(since).looks, Paths{});
}

WalkBeginEntry begin_of(std::uint64_t number) {
  return {.walk = number, .since = kSinceEver, .target = ""};
}

/* As another process does. */
TEST_F(WalkerTest, goes_on_behind_a_directory_without_looking_at_what_is_before) {
  const std::map<std::string, std::pair<Paths, std::set<std::string>>> rests = {
      {"", {{"a", "a/b", "a/b/c", "a/d", "e"}, {"a", "b", "c", "d", "e"}}},
      {"a", {{"a/b", "a/b/c", "a/d", "e"}, {"a", "b", "c", "d", "e"}}},
      {"a/b", {{"a/b/c", "a/d", "e"}, {"a", "b", "c", "d", "e"}}},
      {"a/b/c", {{"a/d", "e"}, {"a", "b", "c", "d", "e"}}},
      {"a/b/gone", {{"a/d", "e"}, {"a", "b", "d", "e"}}},
      {"a/c", {{"a/d", "e"}, {"a", "d", "e"}}},
      {"a/d", {{"e"}, {"a", "d", "e"}}},
      {"a b", {{"e"}, {"e"}}},  // sorts before "a/b" as a text
      {"b", {{"e"}, {"e"}}},
      {"e", {{}, {"e"}}},
      {"z", {{}, {}}}};
  start();
  std::uint64_t number = 1'000'000;
  for (const auto &[after, rest] : rests) {
    ++number;
    const LogPosition begin = intake_->log().end();
    const int before = walked_;
    {
      const tarn::MutexLock lock(asked_mutex);
      asked.clear();
    }
    // Twice, as by two targets; the second one may come too late to be asked about.
    walker_->go_on("t", begin_of(number), after);
    walker_->go_on("u", begin_of(number), after);
    ASSERT_TRUE(eventually([&] { return walked_ == before + 1; }));
    walker_->go_on("v", begin_of(number), "");
    Paths looks;
    for (const LoggedEntry &entry : entries_of(intake_->log())) {
      if (entry.position < begin) continue;
      if (entry.kind == EntryKind::kLook) {
        EXPECT_EQ(decode_look(entry.bytes())->walk, number);
        looks.insert(decode_look(entry.bytes())->directory);
      } else {
        ASSERT_EQ(entry.kind, EntryKind::kWalkEnd);
        EXPECT_EQ(*decode_walk_end(entry.bytes()), (WalkEndEntry{number, true}));
      }
    }
    EXPECT_EQ(looks, rest.first) << after;
    const tarn::MutexLock lock(asked_mutex);
    for (const char *name : {"a", "b", "c", "d", "e"})
      EXPECT_EQ(asked.contains(name), rest.second.contains(name)) << name << " behind " << after;
    EXPECT_FALSE(asked.contains("f"));
  }
}

TEST_F(WalkerTest, a_walk_of_its_own_is_not_gone_on_with) {
  start();
  const WalkBeginEntry begin = walk(kSinceEver).begin;
  const LogPosition end = intake_->log().end();
  walker_->go_on("t", begin, "");
  usleep(200'000);
  EXPECT_EQ(intake_->log().end(), end);
}

/* But whoever still wants it gets it. */
TEST_F(WalkerTest, a_rest_that_nobody_wants_any_more_is_given_up) {
  start([](auto &) { return true; }, 20);
  const auto ends_of = [&](std::uint64_t number) {
    int ends = 0;
    for (const LoggedEntry &entry : entries_of(intake_->log()))
      ends += entry.kind == EntryKind::kWalkEnd && decode_walk_end(entry.bytes())->walk == number;
    return ends;
  };
  const LogPosition end = intake_->log().end();
  walker_->go_on("t", begin_of(1'000'001), "");
  ASSERT_TRUE(eventually([&] { return intake_->log().end() > end; }));
  walker_->request("t", kSinceEver, intake_->log().end());
  ASSERT_TRUE(eventually([&] { return walked_ == 1; }));
  EXPECT_EQ(ends_of(1'000'001), 0);
  walker_->go_on("u", begin_of(1'000'001), "a");
  ASSERT_TRUE(eventually([&] { return walked_ == 2; }));
  EXPECT_EQ(ends_of(1'000'001), 1);
  // Two of which one goes away, and one that waits and then does.
  walker_->go_on("t", begin_of(1'000'002), "");
  walker_->go_on("u", begin_of(1'000'002), "");
  walker_->go_on("t", begin_of(1'000'003), "");
  walker_->request("t", kSinceEver, intake_->log().end());
  ASSERT_TRUE(eventually([&] { return walked_ == 4; }));
  usleep(200'000);
  EXPECT_EQ(ends_of(1'000'002), 1);
  EXPECT_EQ(ends_of(1'000'003), 0);
}

TEST_F(WalkerTest, stops_in_the_middle) {
  start([](auto &) { return true; }, 1);
  walker_->request("t", kSinceEver, 1);
  ASSERT_TRUE(eventually([&] { return !walks().empty(); }));
  walker_->stop();
  walker_->stop();
  EXPECT_FALSE(walks()[0].complete.has_value());
  EXPECT_EQ(walked_, 0);
}

/* A target that is away is not waited for. */
TEST_F(WalkerTest, waits_for_targets_that_are_far_behind) {
  followed_ = intake_->log().end();
  for (std::uint64_t number = 1; number <= 20'000; ++number)
    ASSERT_TRUE(intake_->mark({.number = number}));
  const LogPosition end = intake_->log().end();
  start();
  walker_->request("t", kSinceEver, end);
  usleep(300'000);
  EXPECT_EQ(intake_->log().end(), end);
  followed_ = end;
  EXPECT_TRUE(eventually([&] { return walked_ == 1; }));
  EXPECT_EQ(walks().back().looks, kAll);
  // And ends while it waits.
  followed_ = 1;
  walker_->request("t", kSinceEver, intake_->log().end());
  usleep(100'000);
  walker_->stop();
  EXPECT_EQ(walked_, 1);
}

/* Those that want nothing of it are not waited for. */
TEST_F(WalkerTest, asks_how_far_those_are_that_want_the_walk) {
  start();
  walk(kSinceEver, "t");
  {
    MutexLock lock(mutex_);
    EXPECT_EQ(asked_of_, std::set<std::string>{"t"});
  }
  walker_->request("u", kSinceEver, intake_->log().end());
  walk(kSinceEver, "replica:one");
  MutexLock lock(mutex_);
  EXPECT_EQ(asked_of_, (std::set<std::string>{"replica:one", "u"}));
}

TEST_F(WalkerTest, a_source_that_is_not_there_ends_in_an_incomplete_walk) {
  fs::remove_all(source_);
  start();
  const Walk all = walk(kSinceEver);
  EXPECT_EQ(all.looks, Paths{});
  EXPECT_EQ(all.unread, Paths{""});
  EXPECT_EQ(all.complete, false);
}

/* Programs make and remove directories all the time: that is no part that cannot be read. */
TEST_F(WalkerTest, directories_that_are_removed_meanwhile_are_gone) {
  std::atomic<bool> stop = false;
  std::thread program([&] {
    while (!stop) {
      for (int i = 0; i < 50; ++i) fs::create_directory(source_ + "/a/d/" + std::to_string(i));
      for (int i = 0; i < 50; ++i) fs::remove(source_ + "/a/d/" + std::to_string(i));
    }
  });
  start();
  for (int i = 0; i < 30; ++i) {
    const Walk all = walk(kSinceEver);
    EXPECT_EQ(all.complete, true);
    EXPECT_TRUE(all.looks.contains("a/b/c"));
  }
  stop = true;
  program.join();
}

}  // namespace
}  // namespace tarn
