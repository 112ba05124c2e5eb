// SPDX-License-Identifier: GPL-2.0
// A target whose source cannot be read in parts: what was not copied is tried again or missing,
// whatever else went wrong.
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <map>

#include "mirrord/local_source.h"
#include "tests/mirrord/target_kit.h"
#include "tests/replicate/programs.h"

namespace {

std::atomic<int> failing_syncs = 0;

}  // namespace

// In place of libc's in this program: the next ones fail, as for a disk that has not kept all.
extern "C" int syncfs(int fd) {
  if (failing_syncs > 0) {
    --failing_syncs;
    errno = EIO;
    return -1;
  }
  return static_cast<int>(syscall(SYS_syncfs, fd));
}

namespace tarn::test {
namespace {

namespace fs = std::filesystem;

/* What the test says cannot be found. */
class Errors {
 public:
  void set(const std::string &path, int err) EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    errors_[path] = err;
  }
  void clear() EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    errors_.clear();
  }
  int of(const std::string &path) const EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    const auto found = errors_.find(path);
    return found == errors_.end() ? 0 : found->second;
  }

 private:
  mutable Mutex mutex_;
  std::map<std::string, int> errors_ GUARDED_BY(mutex_);
};

class FailingSource final : public LocalSource {
 public:
  FailingSource(const std::string &directory, const Errors &errors)
      : LocalSource(directory), errors_(errors) {}
  Result<std::optional<Object>> find(const std::string &path) override {
    if (const int err = errors_.of(path); err != 0) return system_error(err, "the source");
    return LocalSource::find(path);
  }
  /* Of the source itself: what the test names lies in it. */
  Result<std::optional<Object>> child(const Object &directory,
                                      const DirectoryEntry &entry) override {
    if (const int err = errors_.of(entry.name); err != 0) return system_error(err, "the source");
    return LocalSource::child(directory, entry);
  }

 private:
  const Errors &errors_;
};

class TargetErrorsTest : public TargetTest {
 protected:
  TargetErrorsTest() {
    view_ = [this] { return std::make_unique<FailingSource>(source_, errors_); };
  }
  ~TargetErrorsTest() override {
    drop_target();
    failing_syncs = 0;
  }
  /* As a disk does that has lost what was written, but not the times. */
  void lose(const std::string &name) const {
    struct stat status;
    ASSERT_EQ(stat(in_target(name).c_str(), &status), 0);
    put_content(in_target(name), std::string(static_cast<std::size_t>(status.st_size), '\0'));
    const timespec times[] = {status.st_atim, status.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, in_target(name).c_str(), times, 0), 0);
  }

  Errors errors_;
};

/* That an object has gone is passed over, because a record tells of it. */
TEST_F(TargetErrorsTest, an_absent_object_does_not_hide_an_error_of_the_machine) {
  write_unseen("a", "a");
  write_unseen("b", "b");
  errors_.set("a", ENOENT);
  errors_.set("b", EIO);
  start();
  EXPECT_TRUE(becomes("held")) << state();
  errors_.clear();
  expect_equal_trees();
}

TEST_F(TargetErrorsTest, an_absent_object_does_not_hide_what_is_missing) {
  start();
  expect_equal_trees();
  write("a", "a");
  write("b", "b");
  ASSERT_TRUE(eventually([&] { return target_->report().lag_entries == 0; }));
  errors_.set("a", ENOENT);
  errors_.set("b", EACCES);
  const std::uint64_t asked = mark();
  EXPECT_TRUE(eventually([&] { return target_->report().gaps != 0; }));
  EXPECT_FALSE(target_->wait(asked, std::chrono::steady_clock::now()).ok());
  errors_.clear();
  expect_equal_trees();
}

/* It is behind the mark before, and so is the record that the gap was reckoned from. */
TEST_F(TargetErrorsTest, a_walk_that_was_asked_for_looks_back_to_what_was_not_copied_since) {
  start();
  expect_equal_trees();
  errors_.set("f", EACCES);
  write("f", "1");
  intake_->gap(Intake::Missing::kSinceLastRecord, "lost");
  mark();
  ASSERT_TRUE(eventually([&] { return target_->report().failures != 0; }));
  errors_.clear();
  expect_equal_trees();
}

/* The next sync succeeds, though the data is lost. */
TEST_F(TargetErrorsTest, what_the_disk_has_lost_is_found) {
  write_unseen("f", "1");
  start();
  expect_equal_trees();
  failing_syncs = 1;
  write("g", "2");
  ASSERT_TRUE(equal());
  ASSERT_TRUE(eventually([&] { return failing_syncs == 0; })) << "it saves from time to time";
  lose("f");
  expect_equal_trees();
}

TEST_F(TargetErrorsTest, what_the_disk_has_lost_is_found_by_the_next_process) {
  write_unseen("f", "1");
  start();
  expect_equal_trees();
  failing_syncs = 1;
  stop();
  ASSERT_EQ(failing_syncs, 0);
  lose("f");
  start();
  expect_equal_trees();
  EXPECT_EQ(target_->report().gaps, 0u);
}

}  // namespace
}  // namespace tarn::test
