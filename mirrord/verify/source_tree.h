/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A side of a comparison from which the other one is mended. Errors have the system's error as
 * code. One thread at a time.
 */
#ifndef TARN_MIRRORD_VERIFY_SOURCE_TREE_H
#define TARN_MIRRORD_VERIFY_SOURCE_TREE_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "mirrord/source.h"
#include "mirrord/verify/tree.h"

namespace tarn {

struct Hole {
  std::uint64_t offset = 0, length = 0;
};

class SourceTree : public Tree {
 public:
  virtual Result<std::vector<std::string>> names(const std::string &directory) = 0;
  virtual Result<std::string> link_text(const std::string &path) = 0;
  virtual Result<Attributes> attributes(const std::string &path) = 0;
  /* Those of at least kHoleSize in a file. */
  virtual Result<std::vector<Hole>> holes(const std::string &path) = 0;
  /* A regular file, to be read. */
  virtual Result<std::unique_ptr<SourceFile>> open_file(const std::string &path) = 0;
};

}  // namespace tarn

#endif
