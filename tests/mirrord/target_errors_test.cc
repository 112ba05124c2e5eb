// SPDX-License-Identifier: GPL-2.0
// A target whose source cannot be read in parts: what was not copied is tried again or missing,
// whatever else went wrong.
#include <cerrno>
#include <filesystem>
#include <map>

#include "mirrord/local_source.h"
#include "tests/mirrord/target_kit.h"
#include "tests/replicate/programs.h"

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

 private:
  const Errors &errors_;
};

class TargetErrorsTest : public TargetTest {
 protected:
  TargetErrorsTest() {
    view_ = [this] { return std::make_unique<FailingSource>(source_, errors_); };
  }
  ~TargetErrorsTest() override { drop_target(); }

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

}  // namespace
}  // namespace tarn::test
