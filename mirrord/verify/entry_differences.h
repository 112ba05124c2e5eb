/* SPDX-License-Identifier: GPL-2.0 */
/* In what two entries of the same path differ, but for their data and their other names. */
#ifndef TARN_MIRRORD_VERIFY_ENTRY_DIFFERENCES_H
#define TARN_MIRRORD_VERIFY_ENTRY_DIFFERENCES_H

#include <optional>
#include <string>
#include <vector>

#include "mirrord/verify/difference.h"
#include "mirrord/verify/tree.h"

namespace tarn {

/* Nothing is compared if both have no entry. */
std::vector<Difference> entry_differences(const std::string &path,
                                          const std::optional<TreeEntry> &source,
                                          const std::optional<TreeEntry> &target);

bool same_type(const TreeEntry &a, const TreeEntry &b);

/* Is it the target's root directory, closed to others? Then its mode is not the source's. */
bool is_closed_root(const std::string &path, const TreeEntry &target);

}  // namespace tarn

#endif
