// SPDX-License-Identifier: GPL-2.0
#include "tarnd/host_mounts.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace tarnd {

// A path as the mount table writes it: blanks and backslashes as \ooo.
static std::string unescape(const std::string &text) {
  std::string out;
  for (size_t i = 0; i < text.size(); i++) {
    if (text[i] == '\\' && i + 3 < text.size()) {
      out += static_cast<char>(std::strtol(text.substr(i + 1, 3).c_str(), nullptr, 8));
      i += 3;
    } else {
      out += text[i];
    }
  }
  return out;
}

bool HostMount::has(const std::string &option) const {
  return (',' + options + ',').find(',' + option + ',') != std::string::npos;
}

std::vector<HostMount> parse_mountinfo(std::istream &table) {
  std::vector<HostMount> mounts;
  for (std::string line; std::getline(table, line);) {
    const size_t dash = line.find(" - ");
    if (dash == std::string::npos) continue;
    std::istringstream head(line), tail(line.substr(dash + 3));
    std::string id, parent, device, root, place, options, type;
    head >> id >> parent >> device >> root >> place >> options;
    tail >> type;
    if (!type.empty()) mounts.push_back({unescape(place), options, type});
  }
  return mounts;
}

std::vector<HostMount> host_mounts() {
  std::ifstream table("/proc/self/mountinfo");
  return parse_mountinfo(table);
}

}  // namespace tarnd
