// SPDX-License-Identifier: GPL-2.0
#include "base/mount_table.h"

#include <fstream>
#include <iterator>

#include "base/text.h"

namespace tarn {

bool MountEntry::has_option(std::string_view option) const {
  std::string_view rest = options;
  while (!rest.empty()) {
    if (take_until(rest, ',') == option) return true;
  }
  return false;
}

std::vector<MountEntry> read_mount_table(std::string_view text) {
  std::vector<MountEntry> table;
  while (!text.empty()) {
    // 36 35 98:0 /root /mountpoint options [optional fields] - type source super-options
    std::string_view line = take_until(text, '\n');
    MountEntry entry;
    take_until(line, ' ');
    take_until(line, ' ');
    entry.device = take_until(line, ' ');
    entry.root = unescape_octal(take_until(line, ' '));
    entry.mountpoint = unescape_octal(take_until(line, ' '));
    entry.options = take_until(line, ' ');
    while (!line.empty() && take_until(line, ' ') != "-") {
    }
    entry.type = take_until(line, ' ');
    if (entry.type.empty()) continue;  // not a mount
    if (entry.type == "tarn" || entry.type == "fuse.tarn")
      entry.lower = unescape_octal(take_until(line, ' '));
    table.push_back(std::move(entry));
  }
  return table;
}

std::vector<MountEntry> mount_table() {
  std::ifstream file("/proc/self/mountinfo");
  return read_mount_table(std::string(std::istreambuf_iterator<char>(file), {}));
}

}  // namespace tarn
