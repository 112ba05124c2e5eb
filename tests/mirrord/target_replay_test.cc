// SPDX-License-Identifier: GPL-2.0
// Whatever programs do, and from whichever earlier position a killed target goes on: in the end it
// is like the source.
#include "tests/mirrord/replay_kit.h"

namespace tarn::test {
namespace {

TEST(TargetReplayTest, ends_like_the_source_from_any_position) {
  replay_at_random<Replay>(5);
}

}  // namespace
}  // namespace tarn::test
