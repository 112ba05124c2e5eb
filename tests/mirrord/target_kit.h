/* SPDX-License-Identifier: GPL-2.0 */
/* A target of a real source with a real log and a real walker; the test is the module. */
#ifndef TARN_TESTS_MIRRORD_TARGET_KIT_H
#define TARN_TESTS_MIRRORD_TARGET_KIT_H

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "base/mutex.h"
#include "mirrord/service/target.h"
#include "mirrord/service/walker.h"
#include "tests/mirrord/service_kit.h"
#include "tests/replicate/fake_tarnd.h"
#include "tests/replicate/run_program.h"

namespace tarn::test {

class TargetTest : public testing::Test {
 protected:
  TargetTest();
  ~TargetTest() override;

  void open_log();
  void open_target();
  void start();
  /* As on SIGTERM. */
  void stop();
  /* As on kill -9: the target's state is what the file holds now. */
  void kill();
  void drop_target();

  /* A mark, and its number. */
  std::uint64_t mark();
  /* Marks until the target has applied all and nothing is missing. No walk's mark follows. */
  bool equal();
  void expect_equal_trees();
  std::string state() const { return target_->report().state; }
  bool becomes(const std::string &state) {
    return eventually([&] { return target_->report().state == state; });
  }
  bool walks_since(LogPosition position) const;

  /* Makes the file as a program does; with its records. */
  void write(const std::string &name, const std::string &data);
  /* Makes it without any record. */
  void write_unseen(const std::string &name, const std::string &data) const;
  void rename(const std::string &from, const std::string &to);
  void remove(const std::string &name);
  Stamp next();

  std::string in_source(const std::string &name) const { return source_ + "/" + name; }
  std::string in_target(const std::string &name) const { return copy_ + "/" + name; }
  TargetState saved() const;
  void put_state(const TargetState &state) const;

  TemporaryDirectory dir_;
  const std::string source_ = dir_ / "src";
  std::string copy_ = dir_ / "target";
  RuleDirectories lists_{{source_}, {}}; /* of the rule */
  const std::string state_file_ = dir_ / "target-t";
  std::uint64_t log_limit_ = 1 << 24;
  std::uint64_t copy_rate_ = 0;                   /* bytes per second; 0: no limit */
  std::uint64_t files_per_second_ = 0;            /* of the walker; 0: no limit */
  std::function<std::unique_ptr<Source>()> view_; /* empty: the directory */
  std::uint32_t number_ = 0;
  std::atomic<std::uint64_t> marks_ = 0;
  LogPosition log_end_ = 0; /* when it was opened, until a target has been told */
  std::unique_ptr<Intake> intake_;
  std::unique_ptr<Walker> walker_;
  std::unique_ptr<Target> target_;

 private:
  LogPosition followed();
  /* A walk's mark comes from the walker's thread some time after the walk's end. */
  void note_walked();
  bool has_walked() const;

  std::atomic<LogPosition> walked_at_ = 0; /* behind the last walk's mark */
  Mutex mutex_;
  Target *followed_ GUARDED_BY(mutex_) = nullptr; /* target_, for the walker's thread */
};

std::string content_of(const std::string &file);
void put_content(const std::string &file, const std::string &data);

}  // namespace tarn::test

#endif
