/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Makes the module number one record for a rule. The module has no request for the number of a
 * rule's last record; the next record's number tells it.
 *
 * The change is a chown that keeps both owners, of a directory of the rule through a mount. It
 * changes only the directory's ctime, and cannot undo a concurrent change by another program.
 */
#ifndef TARN_MIRRORD_TOUCH_H
#define TARN_MIRRORD_TOUCH_H

#include <vector>

#include "base/result.h"
#include "client/control.h"

namespace tarn {

/*
 * Changes one directory through each mount that shows one of the rule. Success means that a change
 * was made, not that the module recorded it. Errors: no mount shows a directory of the rule, or why
 * the change failed.
 */
Result<void> touch(const Rule &rule, const std::vector<Mount> &mounts);

}  // namespace tarn

#endif
