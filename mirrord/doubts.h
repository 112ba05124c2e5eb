/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What an engine knows of a replica that the replica does not show: what is still to be compared.
 * With it another engine takes the place of one that has applied entries without a comparison
 * since.
 */
#ifndef TARN_MIRRORD_DOUBTS_H
#define TARN_MIRRORD_DOUBTS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tarn {

struct Doubts {
  std::vector<std::string> changed = {};           /* paths that records named */
  std::vector<std::string> failed = {};            /* paths that could not be compared or copied */
  std::vector<std::uint64_t> partly_unlinked = {}; /* inode numbers: Replica::partly_unlinked() */

  static constexpr std::size_t kMost = 16384;
  bool operator==(const Doubts &) const = default;
};

}  // namespace tarn

#endif
