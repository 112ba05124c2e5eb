/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A side of a comparison that is a source on another host (remote_source.h): statuses, link targets
 * and extended attributes come from there, of data only hashes. One thread at a time.
 */
#ifndef TARN_MIRRORD_REMOTE_REMOTE_TREE_H
#define TARN_MIRRORD_REMOTE_REMOTE_TREE_H

#include <string>
#include <vector>

#include "mirrord/remote/remote_source.h"
#include "mirrord/verify/tree.h"

namespace tarn {

class RemoteTree final : public Tree {
 public:
  explicit RemoteTree(Requests &requests) : source_(requests), conversation_(requests) {}

  Result<Listing> list(const std::string &directory) override;
  Result<std::optional<TreeEntry>> find(const std::string &path) override;
  std::vector<BlockHashes> block_hashes(const std::string &directory,
                                        const std::vector<Slice> &slices) override;
  Result<std::uint64_t> hole_bytes(const std::string &path) override;

 private:
  TreeEntry entry_of_object(const Source::Object &object);
  BlockHashes hash_slice(const std::string &path, const Slice &slice);

  RemoteSource source_;
  Conversation conversation_;
};

}  // namespace tarn

#endif
