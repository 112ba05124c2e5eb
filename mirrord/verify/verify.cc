// SPDX-License-Identifier: GPL-2.0
#include "mirrord/verify/verify.h"

#include <cerrno>

#include "mirrord/verify/comparison.h"
#include "mirrord/verify/local_tree.h"

namespace tarn {

Result<std::vector<Difference>> verify_trees(const std::string &source, const std::string &target,
                                             const VerifyOptions &options) {
  auto ours = LocalTree::open(source);
  if (!ours) return ours.error();
  return verify_trees(*ours, target, options);
}

Result<std::vector<Difference>> verify_trees(Tree &source, const std::string &target,
                                             const VerifyOptions &options) {
  auto theirs = LocalTree::open(target);
  if (!theirs) return theirs.error();
  const auto thread = SideThread::start();
  if (!thread) return thread.error();
  Comparison comparison(source, *theirs, options, **thread);
  const auto walked = comparison.walk("");
  if (!walked) return walked.error();
  return comparison.conclude();
}

}  // namespace tarn
