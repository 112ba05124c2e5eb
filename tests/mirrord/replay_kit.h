/* SPDX-License-Identifier: GPL-2.0 */
/* Programs change a source while a target follows and is killed, and goes on from any position. */
#ifndef TARN_TESTS_MIRRORD_REPLAY_KIT_H
#define TARN_TESTS_MIRRORD_REPLAY_KIT_H

#include <rapidcheck.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "mirrord/log/format.h"
#include "tests/mirrord/target_kit.h"
#include "tests/replicate/programs.h"

namespace tarn::test {

class Replay : public TargetTest {
 public:
  explicit Replay(unsigned seed) : programs_(source_, seed) {
    lists_ = {{source_ + "/in"}, {source_ + "/in/out"}};
  }
  void TestBody() override {}

  /* Programs change the source while the target follows; then it is killed. */
  void live(unsigned steps) {
    start();
    for (unsigned i = 0; i < steps; ++i) {
      programs_.step();
      if (programs_.below(4) == 0) deliver(programs_.below(12));
      if (programs_.below(20) == 0) settle();
    }
    deliver(0);
    if (programs_.below(2) == 0) settle();
    kill();
    if (!durable_.empty() && programs_.below(2) == 0)
      put_state(durable_[programs_.below(durable_.size())]);
    if (programs_.below(3) == 0) cut_log();
  }
  /* The earliest state of all: everything is applied again. */
  void from_the_first() {
    if (!durable_.empty()) put_state(durable_.front());
    start();
    expect_like_source();
    stop();
  }
  void from_the_last() {
    start();
    expect_like_source();
    stop();
  }

 private:
  /* As a power cut does, or worse: what targets had applied may be gone too. The numbers of the
   * records tell the receiver what is missing. */
  void cut_log() {
    walker_.reset();
    intake_.reset();
    std::string last;
    for (const auto &file : std::filesystem::directory_iterator(dir_ / "log" + "/log"))
      last = std::max(last, file.path().string());
    const auto size = std::filesystem::file_size(last);
    std::filesystem::resize_file(
        last, size - programs_.below(std::min<std::size_t>(size - sizeof(SegmentHeader), 20000)));
    open_log();
    intake_->gap(Intake::Missing::kSinceLastRecord, "the end of the log was cut");
  }
  void deliver(std::size_t keep) {
    for (; programs_.records.size() > keep; programs_.records.pop_front())
      feed(*intake_, programs_.records.front());
  }
  /* A position that is durable: all before its mark is applied. */
  void settle() {
    deliver(0);
    RC_ASSERT(equal());
    TargetState state = saved();
    for (const LoggedEntry &entry : entries_of(intake_->log())) {
      if (entry.kind != EntryKind::kMark || entry.position >= target_->report().position) continue;
      state.position = entry.position + 1;
      state.until = decode_mark(entry.bytes())->until;
    }
    state.clean = false;
    state.missing_since.reset();
    durable_.push_back(state);
  }
  void expect_like_source() {
    RC_ASSERT(equal());
    const std::string here = picture(copy_, "in/out"), there = picture(source_, "in/out");
    if (here != there) RC_LOG() << programs_.log;
    RC_ASSERT(here == there);
  }

  Programs programs_;
  std::vector<TargetState> durable_;
};

/* Lives `cases` of them, or as many as REPLAY_CASES says. `Kind` is made of a seed. */
template <class Kind>
void replay_at_random(int cases) {
  rc::detail::TestParams params = rc::detail::configuration().testParams;
  const char *many = std::getenv("REPLAY_CASES");
  params.maxSuccess = many ? std::atoi(many) : cases;  // each is some seconds of a service's life
  params.disableShrinking = true;
  const auto result = rc::detail::checkTestable(
      [] {
        const auto seed = *rc::gen::arbitrary<unsigned>();
        const auto lives = *rc::gen::container<std::vector<unsigned>>(
            3, rc::gen::resize(100, rc::gen::inRange<unsigned>(1, 120)));
        Kind replay(seed);
        for (const unsigned steps : lives) replay.live(steps);
        replay.from_the_last();
        replay.from_the_first();
        RC_ASSERT(!testing::Test::HasFailure());
      },
      rc::detail::TestMetadata{}, params);
  EXPECT_TRUE(result.template is<rc::detail::SuccessResult>()) << result;
}

}  // namespace tarn::test

#endif
