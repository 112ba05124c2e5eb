/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A side of a comparison that is a directory of this host. Times of access stay as they are where
 * we may keep them, and what reading brings into the page cache is dropped again; what was there
 * before stays. One thread at a time.
 */
#ifndef TARN_MIRRORD_VERIFY_LOCAL_TREE_H
#define TARN_MIRRORD_VERIFY_LOCAL_TREE_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/unique_fd.h"
#include "mirrord/verify/source_tree.h"

namespace tarn {

class LocalTree final : public SourceTree {
 public:
  static Result<LocalTree> open(const std::string &directory);

  Result<Listing> list(const std::string &directory) override;
  Result<std::optional<TreeEntry>> find(const std::string &path) override;
  std::vector<BlockHashes> block_hashes(const std::string &directory,
                                        const std::vector<Slice> &slices) override;
  Result<std::uint64_t> hole_bytes(const std::string &path) override;
  Result<std::vector<std::string>> names(const std::string &directory) override;
  Result<std::string> link_text(const std::string &path) override;
  Result<Attributes> attributes(const std::string &path) override;
  Result<std::vector<Hole>> holes(const std::string &path) override;
  Result<std::unique_ptr<SourceFile>> open_file(const std::string &path) override;

  int root() const { return root_.get(); }

 private:
  explicit LocalTree(UniqueFd root) : root_(std::move(root)) {}
  BlockHashes hash_slice(Place &place, const Slice &slice);

  UniqueFd root_;
  std::vector<char> block_ = std::vector<char>(kBlockSize);
};

}  // namespace tarn

#endif
