/* SPDX-License-Identifier: GPL-2.0 */
/* Moves or removes a path and everything below it in maps that are keyed by relative path. */
#ifndef TARN_MIRRORD_PATH_MAP_H
#define TARN_MIRRORD_PATH_MAP_H

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tarn {

/* Removes and returns the entries of `path` and below it; `path` is not "". */
template <class T>
std::vector<std::pair<std::string, T>> take_tree(std::map<std::string, T> &map,
                                                 const std::string &path) {
  std::vector<std::pair<std::string, T>> taken;
  const auto take = [&](auto at) {
    taken.emplace_back(at->first, std::move(at->second));
    return map.erase(at);
  };
  if (const auto at = map.find(path); at != map.end()) take(at);
  const std::string below = path + "/";
  for (auto at = map.lower_bound(below); at != map.end() && at->first.starts_with(below);)
    at = take(at);
  return taken;
}

/* The parent directory; "" for a name in the root, and for the root. */
inline std::string parent_of(const std::string &path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

}  // namespace tarn

#endif
