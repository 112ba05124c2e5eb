/* SPDX-License-Identifier: GPL-2.0 */
/* A source directory of this host. */
#ifndef TARN_MIRRORD_LOCAL_SOURCE_H
#define TARN_MIRRORD_LOCAL_SOURCE_H

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/result.h"
#include "base/unique_fd.h"
#include "mirrord/source.h"

namespace tarn {

/* A regular file that is open for reading. */
std::unique_ptr<SourceFile> read_local_file(UniqueFd file);

class LocalSource : public Source {
 public:
  /* The directory is opened at the first use and need not exist before. Without path descriptors
   * (O_PATH) only regular files and directories are ever opened. */
  explicit LocalSource(std::string directory, bool path_descriptors = has_path_descriptors())
      : directory_(std::move(directory)), path_descriptors_(path_descriptors) {}

  bool available() override;
  Result<std::optional<Object>> find(const std::string &path) override;
  Result<std::optional<Object>> child(const Object &directory,
                                      const DirectoryEntry &entry) override;
  Result<std::vector<DirectoryEntry>> entries(const Object &directory) override;
  void expect(const std::vector<std::string> &paths) override;
  Result<std::unique_ptr<SourceFile>> open(const Object &file) override;
  Result<std::optional<Xattrs>> xattrs(const Object &object) override;
  bool has_name(const struct stat &object, const std::string &path) override;
  Result<std::int64_t> now() override;

 private:
  std::string directory_;
  bool path_descriptors_;
  UniqueFd root_;
};

}  // namespace tarn

#endif
