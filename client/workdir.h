/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The text of a rule: its included directories and the excluded ones below them. Entries are
 * separated by commas; each is the Base64 text of one path, after a '!' for an excluded one.
 */
#ifndef TARN_CLIENT_WORKDIR_H
#define TARN_CLIENT_WORKDIR_H

#include <optional>
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
 * Makes the text for these directories. Each must be absolute and without NUL, at least one must be
 * included, and the text must fit a rule (15,999 bytes). Directories are sorted, parents first: the
 * module does not apply a directory to its contents if it is listed after one of its own
 * subdirectories, except in that one.
 */
Result<std::string> make_workdir(const RuleDirectories &directories);

/* One entry of a text. */
struct WorkdirEntry {
  std::string text; /* as it stands there, with the '!' */
  bool included = true;
  std::optional<std::string> directory; /* none: not the Base64 text of one */
};
std::vector<WorkdirEntry> workdir_entries(std::string_view text);

struct ReadWorkdir {
  RuleDirectories directories;
  std::vector<std::string>
      broken; /* entries that name no directory, for example because they are not Base64 */
};

/* Reads a text as the module does. */
ReadWorkdir read_workdir(std::string_view text);

}  // namespace tarn

#endif
