/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A side of a comparison that is a source on another host (remote_source.h): statuses, link targets
 * and extended attributes come from there, of data only hashes. One thread at a time.
 */
#ifndef TARN_MIRRORD_REMOTE_REMOTE_TREE_H
#define TARN_MIRRORD_REMOTE_REMOTE_TREE_H

#include <memory>
#include <string>
#include <vector>

#include "mirrord/remote/remote_source.h"
#include "mirrord/verify/source_tree.h"

namespace tarn {

class RemoteTree final : public SourceTree {
 public:
  explicit RemoteTree(Requests &requests) : source_(requests), conversation_(requests) {}

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

 private:
  Result<Source::Object> object_at(const std::string &path);
  Result<Attributes> attributes_of(const Source::Object &object);
  TreeEntry entry_of_object(const Source::Object &object);
  BlockHashes hash_slice(const std::string &path, const Slice &slice);

  RemoteSource source_;
  Conversation conversation_;
};

}  // namespace tarn

#endif
