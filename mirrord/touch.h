/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Makes the module number one record for a rule that changes nothing. The module tells nobody the
 * number of a rule's last record; the next one's number tells it.
 *
 * The change is a change of owner that keeps both owners, of a directory of the rule through a
 * mount: only the directory's ctime moves, and it cannot undo what another program does at the same
 * time.
 */
#ifndef TARN_MIRRORD_TOUCH_H
#define TARN_MIRRORD_TOUCH_H

#include <vector>

#include "base/result.h"
#include "client/control.h"

namespace tarn {

/*
 * Once through each mount that leads to a directory of the rule. Success says that the change was
 * made, not that the module made a record of it. Errors: no mount leads to a directory of the rule,
 * or why the change cannot be made.
 */
Result<void> touch(const Rule &rule, const std::vector<Mount> &mounts);

}  // namespace tarn

#endif
