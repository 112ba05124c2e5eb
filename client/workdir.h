/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The text of a rule: which directories it replicates and which of their subdirectories it leaves
 * out. Entries are separated by commas; each is the Base64 text of one path, an excluded one after
 * a '!'.
 */
#ifndef TARN_CLIENT_WORKDIR_H
#define TARN_CLIENT_WORKDIR_H

#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"

namespace tarn {

struct RuleDirectories {
  std::vector<std::string> include;
  std::vector<std::string> exclude;
};

/*
 * The text for these directories. Each must be absolute and without NUL; at least one must be
 * included; the whole must fit a rule (15,999 bytes). Directories are written sorted, parents
 * first: the module does not apply a directory that follows one of its own subdirectories to that
 * directory's other contents.
 */
Result<std::string> make_workdir(const RuleDirectories &directories);

struct ReadWorkdir {
  RuleDirectories directories;
  std::vector<std::string>
      broken; /* entries that name no directory, for example because they are not Base64 */
};

/* Reads a text as the module does. */
ReadWorkdir read_workdir(std::string_view text);

}  // namespace tarn

#endif
