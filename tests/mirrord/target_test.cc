// SPDX-License-Identifier: GPL-2.0
// What a target does with the entries of its log, over ends and kills of its process.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <limits>

#include "mirrord/file_status.h"
#include "tests/mirrord/target_kit.h"
#include "tests/replicate/programs.h"

namespace tarn::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::steady_clock;

TEST_F(TargetTest, copies_what_is_there_and_applies_what_follows) {
  fs::create_directories(in_source("d/e"));
  write_unseen("d/e/f", "before");
  fs::create_hard_link(in_source("d/e/f"), in_source("d/g"));
  put_content(in_target("stale"), "not in the source");
  fs::create_directory(in_target("d"));
  start();
  expect_equal_trees();
  EXPECT_EQ(state(), "equal");
  EXPECT_FALSE(fs::exists(in_target("stale")));
  const LogPosition copied = intake_->log().end();
  write("h", "hello");
  rename("h", "d/h");
  remove("d/g");
  expect_equal_trees();
  EXPECT_FALSE(walks_since(copied));
  EXPECT_EQ(content_of(in_target("d/h")), "hello");
  const TargetReport report = target_->report();
  EXPECT_EQ(report.applied, 5u);
  EXPECT_EQ(report.failures, 0u);
  EXPECT_EQ(report.gaps, 0u);
}

/* Records are applied before a mark comes, and do not count as equal. */
TEST_F(TargetTest, is_equal_only_behind_a_mark) {
  start();
  expect_equal_trees();
  ASSERT_TRUE(becomes("equal"));
  write("f", "1");
  EXPECT_TRUE(eventually([&] { return target_->report().lag_entries == 0; }));
  EXPECT_EQ(content_of(in_target("f")), "1");
  EXPECT_EQ(state(), "following");
  EXPECT_EQ(target_->wait(marks_ + 1, steady_clock::now()).error().code, -ETIMEDOUT);
  mark();
  EXPECT_TRUE(becomes("equal"));
}

TEST_F(TargetTest, goes_on_after_an_end_without_copying_again) {
  write_unseen("f", "1");
  start();
  expect_equal_trees();
  write("f", "22");
  mark();
  stop();
  EXPECT_TRUE(saved().clean);
  EXPECT_EQ(saved().position, intake_->log().end());
  const LogPosition end = intake_->log().end();
  write("g", "while it was stopped");
  struct stat before, after;
  ASSERT_EQ(stat(in_target("f").c_str(), &before), 0);
  start();
  expect_equal_trees();
  ASSERT_EQ(stat(in_target("f").c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
  EXPECT_FALSE(walks_since(end));
}

/* What was applied at the end without a mark behind it is not certain. */
TEST_F(TargetTest, an_end_without_a_mark_is_not_clean) {
  start();
  expect_equal_trees();
  write("f", "1");
  ASSERT_TRUE(eventually([&] { return target_->report().lag_entries == 0; }));
  stop();
  EXPECT_FALSE(saved().clean);
  EXPECT_LT(saved().position, intake_->log().end());
}

/* The records are there again, and what they did is done already, or differently. */
TEST_F(TargetTest, a_killed_process_applies_records_again) {
  write_unseen("a", "a");
  write_unseen("b", "b");
  start();
  expect_equal_trees();
  stop();
  start();
  ASSERT_TRUE(becomes("equal"));
  const TargetState early = saved();
  EXPECT_FALSE(early.clean);
  const LogPosition begin = intake_->log().end();
  write("f", std::string(5000, 'f'));
  rename("a", "c");
  rename("b", "a");
  rename("c", "b");
  write("a", "new");
  remove("f");
  write("f", "short");
  fs::create_directory(in_source("d"));
  feed(*intake_, name_change(OX_OP_MKDIR, next(), in_source("d"), {}, 0755));
  rename("b", "d/b");
  expect_equal_trees();
  kill();
  put_state(early);
  start();
  expect_equal_trees();
  EXPECT_EQ(content_of(in_target("d/b")), "a");
  EXPECT_FALSE(walks_since(begin)) << "replaying is enough";
}

TEST_F(TargetTest, a_first_copy_that_was_killed_is_made_whole) {
  for (int i = 0; i < 20; ++i) {
    fs::create_directory(in_source("d" + std::to_string(i)));
    write_unseen("d" + std::to_string(i) + "/f", std::string(128 << 10, 'x'));
  }
  copy_rate_ = 64 << 10;  // 40 s for all
  start();
  ASSERT_TRUE(eventually([&] { return fs::exists(in_target("d7")); }));
  const TargetState early = saved();
  ASSERT_TRUE(early.missing_since.has_value());
  kill();
  copy_rate_ = 0;
  put_state(early);
  fs::remove_all(in_target("d7"));
  start();
  expect_equal_trees();
}

TEST_F(TargetTest, a_gap_is_healed_and_then_nothing_is_missing) {
  fs::create_directory(in_source("d"));
  start();
  expect_equal_trees();
  write("d/f", "1");
  expect_equal_trees();
  write_unseen("d/f", "22");
  write_unseen("g", "unseen");
  ASSERT_NE(picture(copy_), picture(source_));
  intake_->gap(Intake::Missing::kSinceLastRecord, "lost");
  EXPECT_EQ(last_gap_of(intake_->log()).since > 0, true);
  expect_equal_trees();
  EXPECT_EQ(target_->report().gaps, 0u);
  EXPECT_FALSE(saved().clean);
  stop();
  EXPECT_FALSE(saved().missing_since.has_value());
}

/* Whether the process is killed before the gap is healed or not. */
TEST_F(TargetTest, a_gap_that_was_not_healed_outlives_the_process) {
  start();
  expect_equal_trees();
  walker_->stop();
  write_unseen("f", "unseen");
  intake_->gap(Intake::Missing::kEverything, "lost");
  mark();
  ASSERT_TRUE(becomes("copying"));
  stop();
  EXPECT_EQ(saved().missing_since, kSinceEver);
  EXPECT_FALSE(saved().clean);
  walker_.reset();
  intake_.reset();
  start();
  expect_equal_trees();
}

/* A comparison may have copied a file's time from the source while its data was still to come. */
TEST_F(TargetTest, equal_times_tell_nothing_of_data_that_changed_since_the_last_position) {
  write_unseen("f", "what was copied");
  start();
  expect_equal_trees();
  const auto lack_data = [this] {
    put_content(in_target("f"), "what was copied!");
    fs::last_write_time(in_target("f"), fs::last_write_time(in_source("f")));
  };
  write_unseen("f", "what was missing");
  lack_data();
  walker_->stop();
  intake_->gap(Intake::Missing::kEverything, "lost");
  mark();
  ASSERT_TRUE(becomes("copying"));
  stop();
  walker_.reset();
  intake_.reset();
  start();
  expect_equal_trees();

  stop();
  lack_data();
  TargetState state = saved();
  EXPECT_FALSE(state.read_since.has_value());
  state.missing_since = kSinceEver;
  state.read_since = now_us() + 3'600'000'000;
  put_state(state);
  start();
  ASSERT_TRUE(equal());
  EXPECT_EQ(content_of(in_target("f")), "what was copied!") << "what is older is not read";
}

/* The log's checksum had accepted them: another version may have written them. */
TEST_F(TargetTest, an_entry_that_cannot_be_read_is_a_gap) {
  start();
  expect_equal_trees();
  const std::vector<std::byte> rubbish(5, std::byte{1});
  for (const std::uint8_t kind : {1, 2, 3, 4, 5, 6, 7, 255}) {
    const std::string name = "unseen" + std::to_string(kind);
    write_unseen(name, name);
    const LogPosition end = intake_->log().end();
    ASSERT_TRUE(intake_->append(static_cast<EntryKind>(kind), {rubbish.data(), rubbish.size()}));
    expect_equal_trees();
    EXPECT_TRUE(walks_since(end)) << unsigned{kind};
  }
}

/* An error of neither the machine nor the record: it may stay. */
TEST_F(TargetTest, what_cannot_be_copied_is_missing) {
  start();
  write("f", "1");
  write("g", "1");
  expect_equal_trees();
  const auto immutable = [&](bool on) {
    const UniqueFd fd(open(in_target("f").c_str(), O_RDONLY | O_CLOEXEC));
    int flags = 0;
    if (ioctl(fd.get(), FS_IOC_GETFLAGS, &flags) != 0) return false;
    flags = on ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
    return ioctl(fd.get(), FS_IOC_SETFLAGS, &flags) == 0;
  };
  if (!immutable(true)) GTEST_SKIP() << "immutable files";
  write("f", "22");
  write("g", "22");
  const std::uint64_t asked = mark();
  EXPECT_TRUE(eventually([&] { return target_->report().gaps != 0; }));
  EXPECT_TRUE(eventually([&] { return content_of(in_target("g")) == "22"; })) << "the rest goes on";
  EXPECT_EQ(target_->wait(asked, steady_clock::now() + std::chrono::seconds(2)).error().code,
            -ETIMEDOUT);
  EXPECT_EQ(state(), "healing");
  EXPECT_NE(target_->report().last_error.find("not permitted"), std::string::npos)
      << target_->report().last_error;
  stop();
  EXPECT_TRUE(saved().missing_since.has_value());
  EXPECT_TRUE(immutable(false));
  start();
  expect_equal_trees();
  EXPECT_EQ(target_->report().gaps, 0u);
}

TEST_F(TargetTest, a_pause_holds_over_a_restart) {
  start();
  expect_equal_trees();
  ASSERT_TRUE(target_->pause().ok());
  EXPECT_TRUE(saved().paused);
  EXPECT_EQ(state(), "paused");
  EXPECT_TRUE(target_->pause().ok());
  write("f", "1");
  EXPECT_EQ(target_->wait(mark(), steady_clock::now() + std::chrono::seconds(9)).error().code,
            -EIO);
  kill();
  start();
  EXPECT_EQ(state(), "paused");
  stop();
  EXPECT_FALSE(fs::exists(in_target("f"))) << "nor is anything applied at the end";
  start();
  ASSERT_TRUE(target_->resume().ok());
  EXPECT_FALSE(saved().paused);
  expect_equal_trees();
}

/* A pause that a restart would forget was not made. */
TEST_F(TargetTest, a_pause_that_cannot_be_saved_is_an_error) {
  start();
  expect_equal_trees();
  fs::create_directory(state_file_ + ".new");  // in the way of the file's next version
  const auto paused = target_->pause();
  ASSERT_FALSE(paused.ok());
  EXPECT_NE(paused.error().text.find("target-t"), std::string::npos) << paused.error().text;
  fs::remove(state_file_ + ".new");
  EXPECT_TRUE(target_->pause().ok());
  EXPECT_TRUE(saved().paused);
}

/* No record tells what is changed by a name outside the rule. */
TEST_F(TargetTest, files_with_names_outside_the_rule_are_watched_after_a_restart_too) {
  lists_ = {{source_}, {in_source("out")}};
  fs::create_directory(in_source("out"));
  start();
  const auto link = [this](const std::string &name, const std::string &other) {
    fs::create_hard_link(in_source(name), in_source(other));
    feed(*intake_, name_change(OX_OP_LINK, next(), in_source(name), in_source(other), 0100644));
  };
  for (const std::string name : {"f", "\xff"}) {
    write(name, "one");
    link(name, "out/" + name);
  }
  ASSERT_TRUE(equal());
  stop();
  EXPECT_EQ(saved().names_outside.size(), 2u);
  start();
  ASSERT_TRUE(equal());
  write_unseen("out/f", "changed behind the restart");
  ASSERT_TRUE(equal());
  EXPECT_EQ(content_of(in_target("f")), "changed behind the restart");
  ASSERT_TRUE(target_->pause().ok());
  write_unseen("out/\xff", "changed in a pause");
  ASSERT_TRUE(target_->resume().ok());
  ASSERT_TRUE(equal());
  EXPECT_EQ(content_of(in_target("\xff")), "changed in a pause");
}

/* Whoever has the file open by that name goes on writing, and the module does not know the other.
 */
TEST_F(TargetTest, files_that_had_a_name_outside_the_rule_are_watched_too) {
  lists_ = {{source_}, {in_source("out")}};
  fs::create_directory(in_source("out"));
  const auto link = [this](const std::string &name, const std::string &other) {
    fs::create_hard_link(in_source(name), in_source(other));
  };
  write_unseen("found", "one");
  link("found", "out/found");
  usleep(kTimestampSlackUs + 100'000);
  start();
  ASSERT_TRUE(equal());
  const auto linked = [&](const std::string &name, const std::string &other) {
    link(name, other);
    feed(*intake_, name_change(OX_OP_LINK, next(), in_source(name), in_source(other), 0100644));
  };
  write("given", "one");
  linked("given", "out/given");
  fs::remove(in_source("out/given"));
  write_unseen("out/taken", "one");
  linked("out/taken", "taken");
  const std::vector<std::string> names = {"found", "given", "taken"};
  ASSERT_TRUE(equal());
  for (const std::string &name : names) fs::remove(in_source("out/" + name));
  for (const std::string text : {"behind its end", "again", "behind a restart"}) {
    ASSERT_TRUE(equal());
    for (const std::string &name : names) write_unseen(name, text);
    if (text == "again") {
      ASSERT_TRUE(equal());
      stop();
      start();
    }
    ASSERT_TRUE(equal());
    for (const std::string &name : names) EXPECT_EQ(content_of(in_target(name)), text) << name;
  }
}

/* The copy has that name still, and it is one of the same file, but no record tells of changes by
 * it. */
TEST_F(TargetTest, a_name_that_another_rule_included_is_outside) {
  fs::create_directory(in_source("out"));
  write_unseen("out/a", "one");
  fs::create_hard_link(in_source("out/a"), in_source("b"));
  fs::create_hard_link(in_source("out/a"), in_source("c"));
  usleep(kTimestampSlackUs + 100'000);
  start();
  ASSERT_TRUE(equal());
  stop();
  lists_ = {{source_}, {in_source("out")}};
  const LogPosition begin = intake_->log().end();
  intake_->gap(Intake::Missing::kEverything, "the excludes are others than before");
  start();
  ASSERT_TRUE(eventually([&] { return walks_since(begin); }));
  usleep(300'000);  // no mark comes while it goes over three files
  fs::remove(in_source("c"));
  feed(*intake_, name_change(OX_OP_UNLINK, next(), in_source("c")));
  ASSERT_TRUE(equal());
  write_unseen("out/a", "changed");
  ASSERT_TRUE(equal());
  EXPECT_EQ(content_of(in_target("b")), "changed");
  stop();
  start();
  ASSERT_TRUE(equal());
  write_unseen("out/a", "changed behind a restart");
  ASSERT_TRUE(equal());
  EXPECT_EQ(content_of(in_target("b")), "changed behind a restart");
  EXPECT_EQ(content_of(in_target("out/a")), "one");
}

/* Such as the kernel's name of a removed file, with what it adds to it. */
TEST_F(TargetTest, a_record_with_a_path_that_no_object_has_is_a_gap_that_heals) {
  start();
  expect_equal_trees();
  for (const std::string &name : {std::string("d/"), std::string(250, 'x') + " (deleted)"}) {
    write_unseen("f", "what it was about: " + name);
    feed(*intake_, name_change(OX_OP_CREATE, next(), in_source(name), {}, 0100644));
    feed(*intake_, write_data(next(), in_source(name), 0, "data"));
  }
  expect_equal_trees();
}

/* A record of it is only there because of its other name. */
TEST_F(TargetTest, what_a_rule_excludes_is_not_copied_while_a_gap_is_healed) {
  lists_ = {{source_}, {in_source("d/private")}};
  fs::create_directory(in_source("d"));
  start();
  ASSERT_TRUE(equal());
  intake_->gap(Intake::Missing::kSinceLastRecord, "lost");
  fs::create_directory(in_source("moved"));
  feed(*intake_, name_change(OX_OP_MKDIR, next(), in_source("moved"), {}, 040755));
  fs::rename(in_source("moved"), in_source("d/private"));
  feed(*intake_, name_change(OX_OP_RENAME, next(), in_source("moved"), in_source("d/private"), 0));
  ASSERT_TRUE(equal());
  EXPECT_FALSE(fs::exists(in_target("moved")));
  EXPECT_FALSE(fs::exists(in_target("d/private")));
}

/* The end of the older one was not recorded, and a walk had come by before the new one was there.
 */
TEST_F(TargetTest, a_new_directory_has_nothing_of_an_older_one_of_its_name) {
  start();
  expect_equal_trees();
  fs::create_directory(in_target("d"));
  put_content(in_target("d/f"), "of the older one");
  fs::create_directory(in_source("d"));
  feed(*intake_, name_change(OX_OP_MKDIR, next(), in_source("d"), {}, 040755));
  expect_equal_trees();
}

TEST_F(TargetTest, a_resync_compares_everything_anew) {
  write_unseen("f", "right");
  start();
  expect_equal_trees();
  put_content(in_target("f"), "wrong!");
  put_content(in_target("stray"), "");
  ASSERT_TRUE(target_->resync().ok());
  expect_equal_trees();
}

TEST_F(TargetTest, work_between_entries_has_the_directory_to_itself) {
  start();
  expect_equal_trees();
  bool done = false;
  EXPECT_TRUE(target_->between_entries([&] { done = true; }).ok());
  EXPECT_TRUE(done);
  write("f", "1");
  expect_equal_trees();
  target_->stop(steady_clock::now());
  EXPECT_EQ(target_->between_entries([] { FAIL(); }).error().code, -EIO);
  EXPECT_EQ(target_->pause().error().code, -EIO) << "nobody saves it any more";
  open_target();
}

/* A repair of a paused target, for example: it copies what is behind the position. */
TEST_F(TargetTest, records_do_not_undo_work_between_entries) {
  start();
  write("a", "old");
  write("c", "another");
  expect_equal_trees();
  ASSERT_TRUE(target_->pause().ok());
  ASSERT_TRUE(saved().clean);
  rename("a", "c");
  write("a", "new");
  ASSERT_TRUE(target_
                  ->between_entries([&] {
                    put_content(in_target("c"), "old");
                    put_content(in_target("a"), "new");
                  })
                  .ok());
  EXPECT_FALSE(saved().clean);
  ASSERT_TRUE(target_->resume().ok());
  expect_equal_trees();
}

/* It would take minutes. */
TEST_F(TargetTest, a_slow_copy_is_interrupted_by_a_stop_and_made_at_the_next_start) {
  write_unseen("large", std::string(8 << 20, 'x'));
  copy_rate_ = 32 << 10;
  start();
  ASSERT_TRUE(becomes("copying"));
  ASSERT_TRUE(eventually([&] { return fs::exists(in_target("large")); }));
  target_->stop(std::chrono::steady_clock::now());
  drop_target();
  EXPECT_NE(content_of(in_target("large")), content_of(in_source("large")));
  copy_rate_ = 0;
  start();
  expect_equal_trees();
}

}  // namespace
}  // namespace tarn::test
