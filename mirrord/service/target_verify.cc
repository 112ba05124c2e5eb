// SPDX-License-Identifier: GPL-2.0
#include "mirrord/service/target_verify.h"

#include <utility>

namespace tarn {

Result<std::vector<Difference>> verify_target(Target &target, SourceTree &source,
                                              VerifyOptions options, bool repair) {
  if (const auto settled = options.settle(); !settled) return settled.error();
  auto found = verify_trees(source, target.directory(), options);
  if (!found || !repair || found->empty()) return found;
  options.settle = {};  // nothing is applied meanwhile
  const std::vector<Difference> differing = std::move(*found);
  const auto run = target.between_entries(
      [&] { found = repair_trees(source, target.directory(), differing, options); });
  if (!run) return run.error();
  return found;
}

}  // namespace tarn
