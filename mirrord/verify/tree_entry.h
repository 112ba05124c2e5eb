/* SPDX-License-Identifier: GPL-2.0 */
/* What a side of a comparison makes of an object's status, wherever the side reads it. */
#ifndef TARN_MIRRORD_VERIFY_TREE_ENTRY_H
#define TARN_MIRRORD_VERIFY_TREE_ENTRY_H

#include <sys/stat.h>

#include <string_view>
#include <vector>

#include "base/result.h"
#include "mirrord/verify/place.h"
#include "mirrord/verify/tree.h"

namespace tarn {

/* Without name, text, attributes and error. */
TreeEntry entry_of(const struct stat &status);

Hash hash_of(std::string_view bytes);
/* Zero if there are none. */
Hash hash_of(const Attributes &attributes);
/* The hash of a directory with these entries. */
Result<Hash> hash_of(const std::vector<TreeEntry> &entries);

}  // namespace tarn

#endif
