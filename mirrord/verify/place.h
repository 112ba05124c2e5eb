/* SPDX-License-Identifier: GPL-2.0 */
/*
 * A name in an open directory below a root, reached without leaving the root: no symbolic link is
 * followed, and a path may be longer than PATH_MAX.
 */
#ifndef TARN_MIRRORD_VERIFY_PLACE_H
#define TARN_MIRRORD_VERIFY_PLACE_H

#include <map>
#include <string>
#include <string_view>

#include "base/result.h"
#include "base/unique_fd.h"

namespace tarn {

/* The errors of the functions below have the system's error as code and text; the path is the
 * caller's to tell. */
Error plain_error(int err);

/* Does the error mean that the path does not exist, or no longer? */
bool means_absent(int err);

std::string join(const std::string &directory, const std::string &name);
std::string parent_of(const std::string &path);

/* An O_PATH descriptor of the directory; "" is the root. */
Result<UniqueFd> open_directory(int root, const std::string &path);

struct Place {
  UniqueFd directory; /* O_PATH */
  std::string name;   /* "." for the root */

  /* A path for calls that take no directory. Its last component is not resolved yet. */
  std::string through_proc() const;
};

Result<Place> place_below(int root, const std::string &path);

/* Opens the object itself, of any type but a symbolic link, when it is a regular file or, with
 * O_DIRECTORY, a directory: opening another has side effects. -ELOOP if it is something else. Times
 * of access stay where we may keep them. */
Result<UniqueFd> open_object(const Place &place, int flags);

/* Extended attributes by their names: those that are compared, see verify.h. */
using Attributes = std::map<std::string, std::string>;
bool is_compared_attribute(std::string_view name);
Result<Attributes> read_attributes(const Place &place);

Result<std::string> read_link_text(const Place &place);

}  // namespace tarn

#endif
