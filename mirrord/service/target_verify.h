/* SPDX-License-Identifier: GPL-2.0 */
/* Compares a target that is in use with its source, and mends it. */
#ifndef TARN_MIRRORD_SERVICE_TARGET_VERIFY_H
#define TARN_MIRRORD_SERVICE_TARGET_VERIFY_H

#include <chrono>
#include <vector>

#include "mirrord/service/target.h"
#include "mirrord/verify/source_tree.h"
#include "mirrord/verify/verify.h"

namespace tarn {

/* How long the comparison waits until a target has applied what changed before. */
inline constexpr std::chrono::minutes kSettleTime{10};

/*
 * What differs once everything that was changed before is applied (`options.settle`); after
 * `repair`, what is left of it. Repairs in the target's own thread, so nothing is applied
 * meanwhile. Sleeps for long; the target and the source outlive the call. Errors: those of
 * verify_trees(), and of Target::between_entries().
 */
Result<std::vector<Difference>> verify_target(Target &target, SourceTree &source,
                                              VerifyOptions options, bool repair);

}  // namespace tarn

#endif
