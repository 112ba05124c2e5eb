// SPDX-License-Identifier: GPL-2.0
// What records do not tell, and what they tell although it did not happen: the source is looked at.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <thread>

#include "mirrord/applier.h"
#include "tests/replicate/fake_tarnd.h"

namespace tarn {
namespace {

using namespace test;
namespace fs = std::filesystem;
using Outcome = Applier::Outcome;

/* Counts how often a directory is read. */
class CountingSource : public LocalSource {
 public:
  CountingSource(const std::string &directory, unsigned &listings)
      : LocalSource(directory), listings_(listings) {}
  Result<std::vector<DirectoryEntry>> entries(const Object &directory) override {
    ++listings_;
    return LocalSource::entries(directory);
  }

 private:
  unsigned &listings_;
};

/* A source whose rule includes in/ and excludes in/out/, and a replica of it. */
class SourceLooksTest : public testing::Test {
 protected:
  SourceLooksTest() {
    umask(0);
    for (const char *tree : {"src", "copy"}) {
      fs::create_directories(dir_ / (std::string(tree) + "/in/d"));
    }
    fs::create_directories(src("in/out"));
    replica_.emplace(std::move(*Replica::open(dir_ / "copy")));
    const RuleDirectories lists{{src("in")}, {src("in/out")}};
    applier_.emplace(dir_ / "src", *replica_, [=](const Uuid &) { return lists; });
  }
  std::string src(const std::string &name) const { return dir_ / ("src/" + name); }
  std::string copy(const std::string &name) const { return dir_ / ("copy/" + name); }

  /* Captured a minute after whatever the source has seen. */
  static Stamp late() { return {.ts = static_cast<std::uint64_t>(time(nullptr) + 60) * 1'000'000}; }
  static Stamp now() { return {.ts = static_cast<std::uint64_t>(time(nullptr)) * 1'000'000}; }

  void expect(const Packet &packet, Outcome outcome) {
    const auto result = applier_->apply(std::get<Record>(*decode(packet)));
    ASSERT_TRUE(result.ok()) << result.error().text;
    EXPECT_EQ(*result, outcome);
  }
  /* When a record of so much later comes that nothing will tell. */
  std::vector<Unexplained> unexplained_in_the_end() {
    expect(name_change(OX_OP_UNLINK, late(), src("in/other")), Outcome::kAlready);
    return applier_->take_unexplained();
  }
  /* All that was done until now has been applied. */
  void look() { ASSERT_TRUE(applier_->caught_up(std::numeric_limits<std::int64_t>::max()).ok()); }
  void both(const std::string &name, const std::string &data, mode_t mode = 0644) {
    for (const std::string &file : {src(name), copy(name)}) {
      std::ofstream(file) << data;
      ASSERT_EQ(chmod(file.c_str(), mode), 0);
    }
  }
  static struct stat status(const std::string &file) {
    struct stat s {};
    EXPECT_EQ(lstat(file.c_str(), &s), 0) << file << ": " << std::strerror(errno);
    return s;
  }
  static std::string contents(const std::string &file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  static Packet written(const Stamp &stamp, const std::string &path) {
    return write_data(stamp, path, 0, "data").front();
  }
  Packet renamed(const std::string &from, const std::string &to) {
    return name_change(OX_OP_RENAME, now(), src(from), src(to));
  }

  TemporaryDirectory dir_;
  std::optional<Replica> replica_;
  std::optional<Applier> applier_;
};

TEST_F(SourceLooksTest, what_comes_into_the_rule_is_fetched) {
  fs::create_directories(src("in/new/deep"));
  std::ofstream(src("in/new/f")) << std::string(300'000, 'x');
  fs::create_hard_link(src("in/new/f"), src("in/new/deep/g"));
  fs::create_symlink("any where", src("in/new/l"));
  ASSERT_EQ(mkfifo(src("in/new/p").c_str(), 0640), 0);
  ASSERT_EQ(chmod(src("in/new/f").c_str(), 0604), 0);
  const timespec times[2] = {{1000, 0}, {-5, 7001}};
  ASSERT_EQ(utimensat(AT_FDCWD, src("in/new/f").c_str(), times, 0), 0);
  expect(renamed("in/out/x", "in/new"), Outcome::kApplied);
  EXPECT_EQ(contents(copy("in/new/f")), std::string(300'000, 'x'));
  const struct stat f = status(copy("in/new/f"));
  EXPECT_EQ(f.st_mode, mode_t{S_IFREG | 0604});
  EXPECT_EQ(f.st_mtim.tv_sec, -5);
  EXPECT_EQ(f.st_mtim.tv_nsec, 7001);
  EXPECT_EQ(f.st_ino, status(copy("in/new/deep/g")).st_ino);
  EXPECT_EQ(fs::read_symlink(copy("in/new/l")), "any where");
  EXPECT_EQ(status(copy("in/new/p")).st_mode, mode_t{S_IFIFO | 0640});
}

TEST_F(SourceLooksTest, what_comes_in_replaces_what_was_there) {
  std::ofstream(copy("in/f")) << "old";
  fs::create_hard_link(copy("in/f"), copy("in/g"));
  std::ofstream(src("in/f")) << "new";
  std::ofstream(src("in/g")) << "old";
  expect(renamed("in/out/f", "in/f"), Outcome::kApplied);
  EXPECT_EQ(contents(copy("in/f")), "new");
  EXPECT_EQ(contents(copy("in/g")), "old") << "another name of the file that was replaced";
  expect(name_change(OX_OP_LINK, now(), src("in/out/f"), src("in/h")), Outcome::kAlready);
  EXPECT_FALSE(fs::exists(copy("in/h"))) << "gone from the source too";
  expect(name_change(OX_OP_UNLINK, now(), src("in/h")), Outcome::kAlready);
  EXPECT_TRUE(unexplained_in_the_end().empty());
}

TEST_F(SourceLooksTest, what_goes_out_of_the_rule_is_removed) {
  std::ofstream(copy("in/d/f")) << "x";
  expect(renamed("in/d", "in/out/d"), Outcome::kApplied);
  EXPECT_FALSE(fs::exists(copy("in/d")));
  expect(renamed("in/nothing", "in/out/d"), Outcome::kAlready);
  // Out of the source altogether.
  std::ofstream(copy("in/f")) << "x";
  expect(name_change(OX_OP_RENAME, now(), src("in/f"), "/elsewhere"), Outcome::kApplied);
  EXPECT_FALSE(fs::exists(copy("in/f")));
}

TEST_F(SourceLooksTest, the_lists_name_places_not_directories) {
  fs::remove_all(src("in"));
  fs::remove_all(copy("in"));
  fs::create_directories(copy("x/out"));
  std::ofstream(copy("x/out/f")) << "no longer included";
  fs::create_directories(src("in/out"));
  const RuleDirectories lists{{dir_ / "src"}, {src("in/out"), src("a/private")}};
  applier_.emplace(dir_ / "src", *replica_, [=](const Uuid &) { return lists; });
  fs::create_directory(src("a"));
  fs::create_directory(copy("a"));
  fs::create_directory(src("a/private"));
  std::ofstream(src("a/private/f")) << "hidden";
  fs::rename(src("a"), src("b"));
  expect(renamed("a", "b"), Outcome::kApplied);
  EXPECT_EQ(contents(copy("b/private/f")), "hidden") << "a/private is excluded, b/private is not";
  expect(renamed("x", "in"), Outcome::kApplied);
  EXPECT_FALSE(fs::exists(copy("in/out"))) << "x/out was included, in/out is not";
}

TEST_F(SourceLooksTest, a_name_outside_the_rule_is_watched) {
  for (const char *name : {"in/f", "in/g"}) both(name, "old");
  fs::create_hard_link(src("in/f"), src("in/out/f"));
  expect(name_change(OX_OP_LINK, now(), src("in/f"), src("in/out/f")), Outcome::kOutside);
  fs::create_hard_link(copy("in/g"), copy("in/h"));
  fs::create_hard_link(src("in/g"), src("in/out/h"));
  expect(renamed("in/h", "in/out/h"), Outcome::kApplied);
  for (const char *name : {"in/out/f", "in/out/h"})  // no record tells
    std::ofstream(src(name), std::ios::trunc) << "changed outside";
  look();
  EXPECT_EQ(contents(copy("in/f")), "changed outside");
  EXPECT_EQ(contents(copy("in/g")), "changed outside");
  EXPECT_EQ(status(copy("in")).st_mtim.tv_nsec / 1000, status(src("in")).st_mtim.tv_nsec / 1000);
}

/* The whole source is searched for the other names of a file; one that lies outside is never found.
 */
TEST_F(SourceLooksTest, a_search_for_names_in_vain_is_not_repeated_until_the_file_changes) {
  both("in/f", "one");
  fs::create_hard_link(src("in/f"), src("in/out/f"));
  unsigned listings = 0;
  const RuleDirectories lists{{src("in")}, {src("in/out")}};
  applier_.emplace(dir_ / "src", std::make_unique<CountingSource>(dir_ / "src", listings),
                   *replica_, [=](const Uuid &) { return lists; });
  applier_->know_rule({});
  const auto searches = [&] {
    const unsigned before = listings;
    EXPECT_TRUE(applier_->look_at("in/f").ok());
    return listings != before;
  };
  EXPECT_TRUE(searches());
  EXPECT_FALSE(searches());
  fs::create_hard_link(src("in/f"), src("in/d/g"));
  EXPECT_TRUE(searches());
  EXPECT_EQ(status(copy("in/d/g")).st_ino, status(copy("in/f")).st_ino);
  EXPECT_FALSE(searches());
}

TEST_F(SourceLooksTest, what_was_changed_outside_before_the_next_link_is_seen) {
  both("in/f", "old");
  fs::create_hard_link(src("in/f"), src("in/out/f"));
  expect(name_change(OX_OP_LINK, now(), src("in/f"), src("in/out/f")), Outcome::kOutside);
  std::ofstream(src("in/out/f"), std::ios::trunc) << "new";
  fs::create_hard_link(src("in/f"), src("in/out/g"));
  expect(name_change(OX_OP_LINK, late(), src("in/f"), src("in/out/g")), Outcome::kOutside);
  look();
  EXPECT_EQ(contents(copy("in/f")), "new");
}

TEST_F(SourceLooksTest, what_was_changed_outside_before_the_links_record_came_is_seen) {
  both("in/f", "old");
  const Stamp linked = now();
  fs::create_hard_link(src("in/f"), src("in/out/f"));
  std::ofstream(src("in/out/f"), std::ios::trunc) << "new";
  expect(name_change(OX_OP_LINK, linked, src("in/f"), src("in/out/f")), Outcome::kOutside);
  look();
  EXPECT_EQ(contents(copy("in/f")), "new");
}

TEST_F(SourceLooksTest, a_name_that_went_out_with_its_directory_is_watched) {
  fs::create_directories(src("in/e"));
  fs::create_directories(copy("in/e"));
  both("in/f", "old");
  for (const std::string &root : {src(""), copy("")})
    fs::create_hard_link(root + "in/f", root + "in/e/f");
  fs::rename(src("in/e"), src("in/out/e"));
  expect(renamed("in/e", "in/out/e"), Outcome::kApplied);
  std::ofstream(src("in/out/e/f"), std::ios::trunc) << "new";
  look();
  EXPECT_EQ(contents(copy("in/f")), "new");
}

TEST_F(SourceLooksTest, what_cannot_be_looked_at_keeps_nothing_else_from_it) {
  both("in/f", "old");
  for (const std::string &root : {src(""), copy("")})
    fs::create_hard_link(root + "in/f", root + "in/g");
  // Renames make paths longer than a system call takes.
  const std::string level(200, 'x');
  const UniqueFd at(open(copy("in/d").c_str(), O_PATH | O_DIRECTORY));
  UniqueFd below(dup(at.get()));
  for (int depth = 0; depth < 25; depth++) {
    ASSERT_EQ(mkdirat(below.get(), level.c_str(), 0700), 0);
    below = UniqueFd(openat(below.get(), level.c_str(), O_PATH | O_DIRECTORY));
  }
  fs::rename(src("in/f"), src("in/out/f"));
  expect(renamed("in/f", "in/out/f"), Outcome::kApplied);
  std::ofstream(src("in/out/f"), std::ios::trunc) << "new";
  EXPECT_FALSE(applier_->caught_up(std::numeric_limits<std::int64_t>::max()).ok());
  EXPECT_EQ(contents(copy("in/g")), "new");
}

TEST_F(SourceLooksTest, the_second_name_of_a_watched_file_is_watched_when_the_first_has_gone) {
  both("in/f", "old");
  for (const std::string &root : {src(""), copy("")})
    fs::create_hard_link(root + "in/f", root + "in/g");
  fs::create_hard_link(src("in/f"), src("in/out/f"));
  expect(name_change(OX_OP_LINK, late(), src("in/f"), src("in/out/f")), Outcome::kOutside);
  both("in/new", "x");
  fs::rename(src("in/new"), src("in/f"));
  expect(renamed("in/new", "in/f"), Outcome::kApplied);
  std::ofstream(src("in/out/f"), std::ios::trunc) << "new";
  look();
  EXPECT_EQ(contents(copy("in/g")), "new");
  EXPECT_EQ(contents(copy("in/f")), "x");
}

TEST_F(SourceLooksTest, a_watched_name_that_has_gone_already_is_watched_too) {
  both("in/f", "old");
  for (const std::string &root : {src(""), copy("")})
    fs::create_hard_link(root + "in/f", root + "in/g");
  fs::create_hard_link(src("in/f"), src("in/out/f"));
  fs::remove(src("in/f"));
  expect(name_change(OX_OP_LINK, now(), src("in/f"), src("in/out/f")), Outcome::kOutside);
  expect(name_change(OX_OP_UNLINK, now(), src("in/f")), Outcome::kApplied);
  std::ofstream(src("in/out/f"), std::ios::trunc) << "new";
  look();
  EXPECT_EQ(contents(copy("in/g")), "new");
}

TEST_F(SourceLooksTest, a_name_that_was_gone_before_its_link_came_is_watched) {
  both("in/f", "old");
  fs::create_directories(src("in/e"));
  expect(renamed("in/out/e", "in/e"), Outcome::kApplied);  // follows the source from now on
  expect(name_change(OX_OP_LINK, now(), src("in/f"), src("in/e/f")), Outcome::kAlready);
  std::ofstream(src("in/f"), std::ios::trunc) << "new";
  expect(written(now(), src("in/e/f")), Outcome::kAlready);
  look();
  EXPECT_EQ(contents(copy("in/f")), "new");
}

TEST_F(SourceLooksTest, names_that_a_fetch_parted_become_one_file_again) {
  fs::create_directories(src("in/after"));
  fs::create_directories(copy("in/before"));
  std::ofstream(src("in/d/a")) << "data";
  std::ofstream(copy("in/d/a")) << "data";
  fs::create_hard_link(copy("in/d/a"), copy("in/before/b"));
  for (const char *name : {"in/after/b", "in/c"}) fs::create_hard_link(src("in/d/a"), src(name));
  expect(renamed("in/out/d", "in/d"), Outcome::kApplied);  // in/after is not there yet
  EXPECT_NE(status(copy("in/d/a")).st_ino, status(copy("in/before/b")).st_ino);
  expect(renamed("in/before", "in/after"), Outcome::kApplied);
  expect(name_change(OX_OP_LINK, now(), src("in/after/b"), src("in/c")), Outcome::kApplied);
  for (const char *name : {"in/after/b", "in/c"})
    EXPECT_EQ(status(copy(name)).st_ino, status(copy("in/d/a")).st_ino) << name;
  EXPECT_EQ(contents(copy("in/c")), "data");
}

// The name may be another file's already: what is written to that is not for the copy.
TEST_F(SourceLooksTest, a_copy_is_not_taken_for_the_file_that_came_after_it) {
  std::ofstream(src("in/f")) << "old old";
  expect(renamed("in/out/f", "in/f"), Outcome::kApplied);
  std::ofstream(src("in/new")) << "new new";
  fs::rename(src("in/new"), src("in/f"));
  expect(name_change(OX_OP_LINK, now(), src("in/f"), src("in/out/g")), Outcome::kOutside);
  expect(written(now(), src("in/f")), Outcome::kApplied);
  EXPECT_EQ(contents(copy("in/f")), "new new");
}

TEST_F(SourceLooksTest, an_old_record_over_what_was_fetched_is_looked_at_again) {
  both("in/f", "old!");
  both("in/d/z", "z");
  for (const std::string &root : {src(""), copy("")})
    fs::create_hard_link(root + "in/f", root + "in/g");
  const auto fetch = [&] {
    ASSERT_TRUE(applier_
                    ->apply(std::get<Record>(
                        *decode(name_change(OX_OP_LINK, now(), src("in/out/x"), src("in/g")))))
                    .ok());
  };
  fetch();
  expect(written(late(), src("in/d/z")), Outcome::kApplied);  // both follow the records again
  std::ofstream(src("in/f"), std::ios::trunc) << "new!";
  std::this_thread::sleep_for(std::chrono::milliseconds(3200));  // now a later change would show
  fetch();
  EXPECT_EQ(contents(copy("in/f")), "new!");
  expect(written(now(), src("in/f")), Outcome::kApplied);
  EXPECT_EQ(contents(copy("in/g")), "data") << "of before, and the record of what followed is lost";
  look();
  EXPECT_EQ(contents(copy("in/g")), "new!");
}

TEST_F(SourceLooksTest, writes_take_their_time_from_the_source) {
  both("in/f", "data");
  const timespec times[] = {{.tv_sec = 1000, .tv_nsec = 0}, {.tv_sec = 2000, .tv_nsec = 3001}};
  for (const char *name : {"in/f", "in"})
    ASSERT_EQ(utimensat(AT_FDCWD, src(name).c_str(), times, 0), 0);
  expect(written(late(), src("in/f")), Outcome::kApplied);
  expect(name_change(OX_OP_CREATE, late(), src("in/gone"), {}, 0644), Outcome::kApplied);
  look();
  EXPECT_FALSE(fs::exists(copy("in/gone")));
  for (const char *name : {"in/f", "in"}) {
    EXPECT_EQ(status(copy(name)).st_mtim.tv_sec, 2000) << name;
    EXPECT_EQ(status(copy(name)).st_mtim.tv_nsec, 3001) << name;
  }
}

// Records carry microseconds.
TEST_F(SourceLooksTest, recorded_times_are_completed_from_the_source) {
  both("in/f", "data");
  const timespec times[] = {{.tv_sec = -1000, .tv_nsec = 5'001},
                            {.tv_sec = 2000, .tv_nsec = 3'001}};
  ASSERT_EQ(utimensat(AT_FDCWD, src("in/f").c_str(), times, 0), 0);
  expect(set_attributes(now(), {src("in/f"), OX_ATTR_ATIME | OX_ATTR_MTIME, 0, 0, 0, 0,
                                -999'999'995, 2'000'000'003, 0}),
         Outcome::kApplied);
  const struct stat f = status(copy("in/f"));
  EXPECT_EQ(f.st_atim.tv_sec, -1000);
  EXPECT_EQ(f.st_atim.tv_nsec, 5'001);
  EXPECT_EQ(f.st_mtim.tv_sec, 2000);
  EXPECT_EQ(f.st_mtim.tv_nsec, 3'001);
}

TEST_F(SourceLooksTest, directories_take_their_times_from_the_source) {
  std::ofstream(src("in/d/f")) << "data";
  const timespec times[] = {{.tv_sec = 1000, .tv_nsec = 1}, {.tv_sec = 2000, .tv_nsec = 3'000'007}};
  for (const char *name : {"in/d/f", "in/d", "in"})
    ASSERT_EQ(utimensat(AT_FDCWD, src(name).c_str(), times, 0), 0);
  // The times differ only by nanoseconds, then by what the write changes in the replica.
  const timespec near[] = {{.tv_sec = 1000, .tv_nsec = 1}, {.tv_sec = 2000, .tv_nsec = 3'000'000}};
  ASSERT_EQ(utimensat(AT_FDCWD, copy("in").c_str(), near, 0), 0);
  expect(name_change(OX_OP_CREATE, late(), src("in/d/f"), {}, 0644), Outcome::kApplied);
  expect(name_change(OX_OP_RMDIR, late(), src("in/never")), Outcome::kAlready);
  look();
  for (const char *name : {"in/d/f", "in/d", "in"}) {
    EXPECT_EQ(status(copy(name)).st_mtim.tv_sec, 2000) << name;
    EXPECT_EQ(status(copy(name)).st_mtim.tv_nsec, 3'000'007) << name;
  }
}

TEST_F(SourceLooksTest, extended_attributes_are_compared_where_something_changed) {
  both("in/f", "data");
  ASSERT_EQ(setxattr(src("in/f").c_str(), "user.x", "value", 5, 0), 0) << std::strerror(errno);
  ASSERT_EQ(setxattr(copy("in/f").c_str(), "user.y", "value", 5, 0), 0) << std::strerror(errno);
  expect(written(now(), src("in/f")), Outcome::kApplied);
  look();
  char value[8] = "";
  EXPECT_EQ(getxattr(copy("in/f").c_str(), "user.x", value, sizeof(value)), 5);
  EXPECT_STREQ(value, "value");
  EXPECT_EQ(getxattr(copy("in/f").c_str(), "user.y", value, sizeof(value)), -1);
}

TEST_F(SourceLooksTest, what_was_changed_is_compared_where_it_is_now) {
  both("in/d/f", "data");
  expect(written(now(), src("in/d/f")), Outcome::kApplied);
  fs::rename(src("in/d"), src("in/e"));
  expect(renamed("in/d", "in/e"), Outcome::kApplied);
  std::ofstream(src("in/e/f"), std::ios::trunc) << "longer than data";
  ASSERT_EQ(chmod(src("in/e/f").c_str(), 0640), 0);
  look();
  EXPECT_EQ(contents(copy("in/e/f")), "longer than data");
  EXPECT_EQ(status(copy("in/e/f")).st_mode & 07777, mode_t{0640});
}

TEST_F(SourceLooksTest, a_missing_directory_comes_with_what_it_holds) {
  fs::create_directories(src("in/new/deep"));
  for (const char *name : {"in/new/g", "in/new/deep/f"}) std::ofstream(src(name)) << "data";
  const auto lost =
      applier_->apply(std::get<Record>(*decode(written(now(), src("in/new/deep/f")))));
  EXPECT_FALSE(lost.ok());
  look();
  for (const char *name : {"in/new/g", "in/new/deep/f"}) EXPECT_EQ(contents(copy(name)), "data");
}

// Its records are on their way: to copy it would be done twice.
TEST_F(SourceLooksTest, what_is_being_changed_is_left_to_the_next_look) {
  both("in/f", "data");
  expect(written(now(), src("in/f")), Outcome::kApplied);
  std::ofstream(src("in/f"), std::ios::app) << " and more";
  ASSERT_TRUE(applier_->caught_up(1'000'000).ok());
  EXPECT_EQ(contents(copy("in/f")), "data");
  look();
  EXPECT_EQ(contents(copy("in/f")), "data and more");
}

TEST_F(SourceLooksTest, what_the_rule_excludes_is_not_compared) {
  fs::create_directories(copy("in/out"));
  expect(name_change(OX_OP_CREATE, late(), src("in/out/f"), {}, 0644), Outcome::kApplied);
  look();
  EXPECT_TRUE(fs::exists(copy("in/out/f")));
}

TEST_F(SourceLooksTest, a_link_of_a_nameless_file_is_fetched) {
  std::ofstream(src("in/f")) << "data";
  Stamp nameless = now();
  nameless.cp = OX_CP_NAMELESS;
  expect(name_change(OX_OP_LINK, nameless, src("in/d"), src("in/f")), Outcome::kApplied);
  EXPECT_EQ(contents(copy("in/f")), "data");
}

TEST_F(SourceLooksTest, a_refused_removal_leaves_the_directory) {
  ASSERT_EQ(mkfifo(src("in/d/p").c_str(), 0600), 0);
  expect(name_change(OX_OP_RMDIR, now(), src("in/d")), Outcome::kAlready);
  EXPECT_TRUE(fs::is_directory(copy("in/d")));
  // What is put into it later is not lost, whatever became of the directory meanwhile.
  std::ofstream(src("in/d/f")) << "kept";
  fs::rename(src("in/d"), src("in/e"));
  expect(name_change(OX_OP_CREATE, now(), src("in/d/f"), {}, 0644), Outcome::kAlready);
  expect(renamed("in/d", "in/e"), Outcome::kApplied);
  EXPECT_EQ(contents(copy("in/e/f")), "kept");
  EXPECT_EQ(status(copy("in/e/p")).st_mode, mode_t{S_IFIFO | 0600});
  EXPECT_FALSE(fs::exists(copy("in/d")));
}

TEST_F(SourceLooksTest, a_refused_truncation_cuts_nothing) {
  both("in/f", "contents");
  const Stamp later = late();
  for (const Stamp &when : {now(), later}) {
    expect(set_attributes(when, {src("in/f"), OX_ATTR_SIZE, 0, 0, 0, 0, 0, 0, 0}),
           when.ts == later.ts ? Outcome::kAlready : Outcome::kApplied);
    EXPECT_EQ(contents(copy("in/f")), "contents");
  }
}

TEST_F(SourceLooksTest, a_refused_change_of_mode_or_owner_changes_nothing) {
  both("in/f", "contents", 0640);
  for (const Stamp &when : {now(), late()}) {
    const auto result = applier_->apply(std::get<Record>(*decode(set_attributes(
        when, {src("in/f"), OX_ATTR_MODE | OX_ATTR_UID | OX_ATTR_GID, 04777, 7, 8, 0, 0, 0, 0}))));
    ASSERT_TRUE(result.ok()) << result.error().text;
    const struct stat f = status(copy("in/f"));
    EXPECT_EQ(f.st_mode, mode_t{S_IFREG | 0640});
    EXPECT_EQ(f.st_uid, geteuid());
  }
}

TEST_F(SourceLooksTest, a_later_size_is_no_refusal) {
  both("in/f", "contents");
  std::ofstream(src("in/f"), std::ios::trunc) << "ab";  // written again since
  expect(set_attributes(now(), {src("in/f"), OX_ATTR_SIZE, 0, 0, 0, 0, 0, 0, 0}),
         Outcome::kApplied);
  EXPECT_EQ(contents(copy("in/f")), "ab");
  expect(write_data(now(), src("in/f"), 0, "ab")[0], Outcome::kApplied);
  EXPECT_EQ(contents(copy("in/f")), "ab");
}

TEST_F(SourceLooksTest, special_files_are_made) {
  ASSERT_EQ(mkfifo(src("in/p").c_str(), 0600), 0);
  expect(set_attributes(now(), {src("in/p"), OX_ATTR_MODE, 0600, 0, 0, 0, 0, 0, 0}),
         Outcome::kApplied);
  EXPECT_EQ(status(copy("in/p")).st_mode, mode_t{S_IFIFO | 0600});
  ASSERT_EQ(mknod(src("in/s").c_str(), S_IFSOCK | 0600, 0), 0);
  expect(renamed("in/s0", "in/s"), Outcome::kApplied);
  EXPECT_EQ(status(copy("in/s")).st_mode, mode_t{S_IFSOCK | 0600});
  // Over a regular file.
  both("in/f", "x");
  fs::rename(src("in/p"), src("in/f"));
  expect(renamed("in/p", "in/f"), Outcome::kApplied);
  EXPECT_EQ(status(copy("in/f")).st_mode, mode_t{S_IFIFO | 0600});
  EXPECT_FALSE(fs::exists(copy("in/p")));
  ASSERT_EQ(unlink(src("in/f").c_str()), 0);
  expect(name_change(OX_OP_UNLINK, now(), src("in/f")), Outcome::kAlready);
  EXPECT_FALSE(fs::exists(copy("in/f")));
}

TEST_F(SourceLooksTest, device_nodes_are_made) {
  if (mknod(src("in/n").c_str(), S_IFCHR | 0600, makedev(1, 3)) != 0)
    GTEST_SKIP() << "we may not make device nodes";
  expect(set_attributes(now(), {src("in/n"), OX_ATTR_MODE, 0600, 0, 0, 0, 0, 0, 0}),
         Outcome::kApplied);
  EXPECT_EQ(status(copy("in/n")).st_mode, mode_t{S_IFCHR | 0600});
  EXPECT_EQ(status(copy("in/n")).st_rdev, makedev(1, 3));
}

TEST_F(SourceLooksTest, files_made_by_mknod_are_fetched) {
  ASSERT_EQ(mknod(src("in/f").c_str(), S_IFREG | 0640, 0), 0);
  std::ofstream(src("in/f")) << "data";
  expect(write_data(now(), src("in/f"), 0, "data")[0], Outcome::kApplied);
  EXPECT_EQ(contents(copy("in/f")), "data");
  EXPECT_EQ(status(copy("in/f")).st_mode, mode_t{S_IFREG | 0640});
}

TEST_F(SourceLooksTest, a_missing_file_must_be_explained) {
  expect(write_data(now(), src("in/lost"), 0, "x")[0], Outcome::kAlready);
  expect(set_attributes(now(), {src("in/gone"), OX_ATTR_MODE, 0600, 0, 0, 0, 0, 0, 0}),
         Outcome::kAlready);
  EXPECT_TRUE(applier_->take_unexplained().empty()) << "a later record may tell";
  expect(name_change(OX_OP_UNLINK, now(), src("in/gone")), Outcome::kAlready);
  const auto missing = unexplained_in_the_end();
  ASSERT_EQ(missing.size(), 1u);
  EXPECT_EQ(missing[0].what, "write " + src("in/lost"));
  EXPECT_TRUE(unexplained_in_the_end().empty()) << "said once";
}

TEST_F(SourceLooksTest, the_owner_of_a_symbolic_link) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  fs::create_symlink("to", src("in/l"));
  ASSERT_EQ(lchown(src("in/l").c_str(), 12, 34), 0);
  expect(name_change(OX_OP_SYMLINK, now(), src("in/l"), "to", 07777), Outcome::kApplied);
  EXPECT_EQ(status(copy("in/l")).st_uid, 12u);
  EXPECT_EQ(status(copy("in/l")).st_gid, 34u);
}

TEST_F(SourceLooksTest, new_bytes_lose_a_set_user_id_that_the_source_has_not) {
  both("in/f", "old", 04755);
  ASSERT_EQ(chmod(src("in/f").c_str(), 0755), 0);
  expect(write_data(now(), src("in/f"), 0, "new")[0], Outcome::kApplied);
  EXPECT_EQ(status(copy("in/f")).st_mode, mode_t{S_IFREG | 0755});
  // Where the source's file has it still, its writer was allowed to.
  both("in/g", "old", 04755);
  expect(write_data(now(), src("in/g"), 0, "new")[0], Outcome::kApplied);
  EXPECT_EQ(status(copy("in/g")).st_mode, mode_t{S_IFREG | 04755});
}

TEST_F(SourceLooksTest, a_set_user_id_mode_is_only_taken_with_its_bytes) {
  both("in/f", "a stranger's program", 0755);
  std::ofstream(src("in/f"), std::ios::trunc) << "root's";
  ASSERT_EQ(chmod(src("in/f").c_str(), 04755), 0);
  // An older change of mode, while the source is further.
  expect(set_attributes(now(), {src("in/f"), OX_ATTR_MODE, 0700, 0, 0, 0, 0, 0, 0}),
         Outcome::kApplied);
  EXPECT_EQ(status(copy("in/f")).st_mode, mode_t{S_IFREG | 04755});
  EXPECT_EQ(contents(copy("in/f")), "root's");
}

/* The records of the write and of the removal name the one that is gone. */
TEST_F(SourceLooksTest, a_file_has_its_times_though_the_name_it_was_written_by_is_removed) {
  both("in/f", "before");
  fs::create_hard_link(src("in/f"), src("in/g"));
  fs::create_hard_link(copy("in/f"), copy("in/g"));
  std::ofstream(src("in/g")) << "data";
  expect(written(late(), src("in/g")), Outcome::kApplied);
  fs::remove(src("in/g"));
  expect(name_change(OX_OP_UNLINK, late(), src("in/g")), Outcome::kApplied);
  look();
  EXPECT_EQ(fs::last_write_time(copy("in/f")), fs::last_write_time(src("in/f")));
}

/* As programs do that put a file in its place whole: nothing is searched for. */
TEST_F(SourceLooksTest, a_file_has_its_times_though_it_was_written_by_another_name_before) {
  both("in/new", "before");
  std::ofstream(src("in/new")) << "data";
  expect(written(late(), src("in/new")), Outcome::kApplied);
  fs::create_hard_link(src("in/new"), src("in/f"));
  expect(name_change(OX_OP_LINK, late(), src("in/new"), src("in/f")), Outcome::kApplied);
  fs::remove(src("in/new"));
  expect(name_change(OX_OP_UNLINK, late(), src("in/new")), Outcome::kApplied);
  EXPECT_TRUE(replica_->partly_unlinked().empty());
  look();
  EXPECT_EQ(fs::last_write_time(copy("in/f")), fs::last_write_time(src("in/f")));
}

/* What a path was copied from may be another one's object by now, or its number. */
TEST_F(SourceLooksTest, only_names_that_the_source_has_count_as_known) {
  both("in/p", "data");
  fs::create_hard_link(src("in/p"), src("in/out/p"));
  expect(name_change(OX_OP_LINK, late(), src("in/p"), src("in/out/p")), Outcome::kOutside);
  fs::rename(src("in/p"), src("in/q"));
  expect(renamed("in/out/q", "in/q"), Outcome::kApplied);
  EXPECT_EQ(applier_->with_names_outside(), (std::vector<std::string>{"in/p", "in/q"}));
  // When nothing can tell of it any more, nothing waits for it.
  fs::remove(copy("in/p"));
  EXPECT_EQ(applier_->with_names_outside(), std::vector<std::string>{"in/q"});
}

TEST_F(SourceLooksTest, nobody_else_enters_the_replica) {
  struct stat s = status(copy(""));
  ASSERT_EQ(chmod(copy("").c_str(), 0755), 0);
  const auto open = replica_->must_close_to_others();
  ASSERT_TRUE(open.ok());
  if (!*open) GTEST_SKIP() << "set-user-id modes are not honoured here";
  s = status(copy(""));
  EXPECT_EQ(s.st_mode & 07777, mode_t{0755});
  ASSERT_TRUE(replica_->close_to_others().ok());
  s = status(copy(""));
  EXPECT_EQ(s.st_mode & 07777, mode_t{0700});
  const auto again = replica_->must_close_to_others();
  EXPECT_TRUE(again.ok() && !*again);
  ASSERT_TRUE(replica_->set_attributes("", {.mode = 0755}).ok());
  s = status(copy(""));
  EXPECT_EQ(s.st_mode & 07777, mode_t{0700});
}

}  // namespace
}  // namespace tarn
