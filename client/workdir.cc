// SPDX-License-Identifier: GPL-2.0
#include "client/workdir.h"

#include <algorithm>
#include <cerrno>

#include <fmt/format.h>

#include "base/text.h"
#include "client/base64.h"
#include "module/os_public/Include/ox_msg.h"

namespace tarn {
namespace {

Result<void> check_directory(const std::string &path) {
  if (path.empty() || path[0] != '/')
    return Error{-EINVAL,
                 fmt::format("the directory {} of the rule is not absolute: begin it with '/'",
                             printable(path))};
  if (path.find('\0') != std::string::npos)
    return Error{-EINVAL,
                 fmt::format("the directory {} of the rule holds a NUL byte", printable(path))};
  if (path.size() >= OX_PATH_MAX)
    return Error{-ENAMETOOLONG,
                 fmt::format("a directory of the rule is longer than {} bytes", OX_PATH_MAX - 1)};
  return {};
}

void append_entries(std::string &text, std::vector<std::string> paths, std::string_view mark) {
  std::sort(paths.begin(), paths.end());
  for (const std::string &path : paths) {
    if (!text.empty()) text += ',';
    text += mark;
    text += base64_encode(path);
  }
}

}  // namespace

Result<std::string> make_workdir(const RuleDirectories &directories) {
  if (directories.include.empty())
    return Error{-EINVAL, "the rule includes no directory: name at least one with --include"};
  for (const auto *list : {&directories.include, &directories.exclude}) {
    for (const std::string &path : *list) {
      if (auto checked = check_directory(path); !checked) return checked.error();
    }
  }
  std::string text;
  append_entries(text, directories.include, "");
  append_entries(text, directories.exclude, "!");
  if (text.size() >= OX_WORKDIR_LEN)
    return Error{-E2BIG,
                 fmt::format("the rule's text needs {} bytes and {} fit: name fewer or shorter "
                             "directories, or split them over several rules",
                             text.size(), OX_WORKDIR_LEN - 1)};
  return text;
}

std::vector<WorkdirEntry> workdir_entries(std::string_view text) {
  constexpr std::string_view kSkipped = " ,\r\n", kEnds = ",\r\n";
  std::vector<WorkdirEntry> entries;
  text = text.substr(0, text.find('\0'));
  for (;;) {
    const std::size_t begin = text.find_first_not_of(kSkipped);
    if (begin == std::string_view::npos) return entries;
    text.remove_prefix(begin);
    const std::string_view entry = text.substr(0, text.find_first_of(kEnds));
    text.remove_prefix(entry.size());
    const bool excluded = entry[0] == '!';
    auto path = base64_decode(entry.substr(excluded));
    if (path) path->resize(std::min(path->size(), path->find('\0')));
    if (path && path->empty()) path.reset();
    entries.push_back({std::string(entry), !excluded, std::move(path)});
  }
}

ReadWorkdir read_workdir(std::string_view text) {
  ReadWorkdir read;
  for (WorkdirEntry &entry : workdir_entries(text)) {
    auto &[include, exclude] = read.directories;
    if (entry.directory)
      (entry.included ? include : exclude).push_back(std::move(*entry.directory));
    else
      read.broken.push_back(std::move(entry.text));
  }
  return read;
}

}  // namespace tarn
