// SPDX-License-Identifier: GPL-2.0
// Records that come late: the source has moved on, and what is looked up there is further than they
// are. Whatever was done, the replica is like the source when all of them have come.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <limits>
#include <optional>

#include <fmt/format.h>

#include "mirrord/applier.h"
#include "tests/replicate/fake_tarnd.h"
#include "tests/replicate/programs.h"

namespace tarn {
namespace {

using namespace test;
namespace fs = std::filesystem;

constexpr std::uint64_t kTick = 10'000; /* of files' times, in microseconds */

struct Speed {
  const char *name;
  std::chrono::microseconds horizon;
  unsigned lag; /* records that may wait */
};

class ConvergenceTest : public testing::TestWithParam<Speed> {
 protected:
  ConvergenceTest() { umask(0); }

  void run(unsigned seed) {
    TemporaryDirectory dir;
    const std::string source = dir / "src", copy = dir / "replica";
    fs::create_directory(source);
    fs::create_directory(copy);
    auto replica = std::move(*Replica::open(copy));
    const RuleDirectories lists{{source + "/in"}, {source + "/in/out"}};
    std::optional<Applier> applier;
    const auto begin = [&] {
      applier.emplace(
          source, replica, [&](const Uuid &) { return lists; }, GetParam().horizon);
    };
    begin();
    Programs programs(source, seed);
    std::string said;
    // Behind how many records, and of when: all that was changed before has its record before.
    std::deque<std::pair<std::size_t, std::uint64_t>> marks;
    std::size_t delivered = 0;
    const auto add_mark = [&](std::uint64_t until) {
      programs.log += "mark\n";
      marks.emplace_back(delivered + programs.records.size(), until);
    };
    const auto reach_marks = [&] {
      for (; !marks.empty() && marks.front().first == delivered; marks.pop_front())
        EXPECT_TRUE(applier->caught_up(static_cast<std::int64_t>(marks.front().second)).ok());
    };
    const auto deliver = [&] {
      const auto record = std::get<Record>(*decode(programs.records.front()));
      const auto result = applier->apply(record);
      if (!result)
        said += fmt::format("record {}: {}: {}\n", record.wseq, describe(record.change),
                            result.error().text);
      programs.records.pop_front();
      ++delivered;
      reach_marks();
    };
    for (int i = 0; i < 400; ++i) {
      programs.step();
      if (programs.below(4) != 0) continue;
      const std::size_t kept = programs.below(GetParam().lag + 1);
      while (programs.records.size() > kept) deliver();
      if (!programs.records.empty() && i % 8 == 0) add_mark(record_time() - kTick);
      if (!programs.records.empty() || programs.below(4) != 0) continue;
      add_mark(record_time());
      reach_marks();
      if (!applier->changed_paths().empty() || programs.below(2) != 0) continue;
      programs.log += "restart\n";
      begin();
    }
    while (!programs.records.empty()) deliver();
    EXPECT_TRUE(applier->caught_up(static_cast<std::int64_t>(record_time())).ok());
    // So much later that nothing will tell.
    const Stamp late{.ts = record_time() + 60'000'000};
    const Packet none = name_change(OX_OP_UNLINK, late, source + "/in/none");
    EXPECT_TRUE(applier->apply(std::get<Record>(*decode(none))).ok());
    for (const auto &missing : applier->take_unexplained())
      said += fmt::format("record {}: {} was not explained\n", missing.wseq, missing.what);
    EXPECT_TRUE(applier->caught_up(std::numeric_limits<std::int64_t>::max()).ok());
    EXPECT_EQ(said, "") << "seed " << seed << "\n" << programs.log;
    EXPECT_EQ(picture(copy, "in/out"), picture(source, "in/out")) << "seed " << seed << "\n"
                                                                  << programs.log;
  }
};

TEST_P(ConvergenceTest, the_replica_is_like_the_source_in_the_end) {
  const char *one = std::getenv("CONVERGENCE_SEED");
  const unsigned first = one ? static_cast<unsigned>(std::atoi(one)) : 1;
  const char *many = std::getenv("CONVERGENCE_SEEDS");
  const unsigned count = many ? static_cast<unsigned>(std::atoi(many)) : one ? 1 : 30;
  for (unsigned seed = first; seed < first + count && !HasFailure(); ++seed) run(seed);
  if (one) return;
  run(1022);  // a rename below what was a directory, and is a pipe by now
  run(4032);  // a refused truncation, to the size of what has the name by now
  run(221);   // a file was written by a name that another one has by now
}

INSTANTIATE_TEST_SUITE_P(Lags, ConvergenceTest,
                         testing::Values(Speed{"at_once", std::chrono::microseconds(0), 0},
                                         Speed{"late", std::chrono::microseconds(0), 12},
                                         Speed{"very_late", std::chrono::microseconds(0), 300},
                                         Speed{"long_marks", PendingPaths::kHorizon, 40}),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
}  // namespace tarn
