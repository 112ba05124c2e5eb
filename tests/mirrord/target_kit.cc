// SPDX-License-Identifier: GPL-2.0
#include "tests/mirrord/target_kit.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <utility>

#include "mirrord/file_status.h"
#include "tests/replicate/programs.h"

namespace tarn::test {

namespace fs = std::filesystem;
using std::chrono::steady_clock;

std::string content_of(const std::string &file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void put_content(const std::string &file, const std::string &data) {
  std::ofstream(file, std::ios::binary) << data;
}

TargetTest::TargetTest() {
  umask(0);
  fs::create_directory(source_);
  fs::create_directory(copy_);
  fs::permissions(copy_, fs::perms::owner_all);
}

TargetTest::~TargetTest() {
  drop_target();
  walker_.reset();
}

void TargetTest::drop_target() {
  {
    MutexLock lock(mutex_);
    followed_ = nullptr;
  }
  target_.reset();
}

LogPosition TargetTest::followed() {
  MutexLock lock(mutex_);
  return followed_ ? followed_->following() : Target::kNotFollowing;
}

void TargetTest::note_walked() {
  mark();
  walked_at_ = intake_->log().end();
}

bool TargetTest::has_walked() const {
  LogPosition last = 0;
  for (const LoggedEntry &entry : entries_of(intake_->log())) {
    if (entry.kind == EntryKind::kWalkEnd) last = entry.position;
  }
  return walked_at_ > last || last == 0;
}

void TargetTest::open_log() {
  intake_ = open_intake(dir_ / "log", log_limit_);
  log_end_ = intake_->found_end();
  marks_ = std::max(marks_.load(), intake_->last_mark());
  walker_ = std::make_unique<Walker>(
      Walker::Options{
          .name = "s",
          .directory = source_,
          .included = [this, scope = RuleScope(lists_)](
                          const std::string &path) { return scope.includes(in_source(path)); },
          .followed = [this](const auto &) { return followed(); },
          .files_per_second = files_per_second_,
          .walked = [this] { note_walked(); }},
      *intake_);
}

void TargetTest::open_target() {
  if (!intake_) open_log();
  auto target = Target::open({.source = "s",
                              .source_directory = source_,
                              .lists = lists_,
                              .name = "t",
                              .directory = copy_,
                              .state_file = state_file_,
                              .log_end = std::exchange(log_end_, Target::Options().log_end),
                              .copy_bytes_per_second = copy_rate_,
                              .view = view_},
                             *intake_, *walker_);
  ASSERT_TRUE(target.ok()) << target.error().text;
  drop_target();
  target_ = std::move(*target);
  MutexLock lock(mutex_);
  followed_ = target_.get();
}

void TargetTest::start() {
  open_target();
  target_->start();
}

void TargetTest::stop() {
  target_->stop(steady_clock::now() + std::chrono::seconds(60));
  drop_target();
}

void TargetTest::kill() {
  const std::string kept = dir_ / "kept-state";
  ASSERT_TRUE(eventually([&] { return fs::exists(state_file_); }));
  fs::copy(state_file_, kept, fs::copy_options::overwrite_existing);
  drop_target();
  fs::copy(kept, state_file_, fs::copy_options::overwrite_existing);
}

std::uint64_t TargetTest::mark() {
  const std::uint64_t number = ++marks_;
  EXPECT_TRUE(intake_->mark({number, now_us()}));
  return number;
}

bool TargetTest::equal() {
  const auto applied = [&] {
    return target_->wait(mark(), steady_clock::now() + std::chrono::milliseconds(500)).ok();
  };
  return eventually(applied) && eventually([&] { return has_walked(); }) && eventually(applied);
}

void TargetTest::expect_equal_trees() {
  EXPECT_TRUE(equal()) << state() << ": " << target_->report().last_error;
  EXPECT_EQ(picture(copy_), picture(source_));
}

bool TargetTest::walks_since(LogPosition position) const {
  for (const LoggedEntry &entry : entries_of(intake_->log())) {
    if (entry.position >= position && entry.kind == EntryKind::kWalkBegin) return true;
  }
  return false;
}

Stamp TargetTest::next() {
  return {++number_, rule_uuid(), static_cast<std::uint64_t>(now_us()), OX_CP_NAMED, 7};
}

void TargetTest::write_unseen(const std::string &name, const std::string &data) const {
  put_content(in_source(name), data);
}

void TargetTest::write(const std::string &name, const std::string &data) {
  const bool fresh = !fs::exists(in_source(name));
  put_content(in_source(name), data);
  if (fresh) fs::permissions(in_source(name), fs::perms{0644});
  if (fresh) feed(*intake_, name_change(OX_OP_CREATE, next(), in_source(name), {}, 0100644));
  const std::string path = in_source(name);
  SetAttr truncated{};
  truncated.path = path;
  truncated.valid = OX_ATTR_SIZE | OX_ATTR_CTIME;
  feed(*intake_, set_attributes(next(), truncated));
  feed(*intake_, write_data(next(), in_source(name), 0, data));
}

void TargetTest::rename(const std::string &from, const std::string &to) {
  fs::rename(in_source(from), in_source(to));
  feed(*intake_, name_change(OX_OP_RENAME, next(), in_source(from), in_source(to), 0100644));
}

void TargetTest::remove(const std::string &name) {
  fs::remove(in_source(name));
  feed(*intake_, name_change(OX_OP_UNLINK, next(), in_source(name)));
}

TargetState TargetTest::saved() const {
  const auto state = read_target_state(state_file_);
  EXPECT_TRUE(state.ok() && state->has_value());
  return state && *state ? **state : TargetState{};
}

void TargetTest::put_state(const TargetState &state) const {
  EXPECT_TRUE(write_target_state(state_file_, state).ok());
}

}  // namespace tarn::test
