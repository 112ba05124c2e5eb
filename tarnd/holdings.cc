// SPDX-License-Identifier: GPL-2.0
#include "tarnd/mount.h"

namespace tarnd {

void Holdings::add_node(uk_node *node) {
  const std::lock_guard lock(mutex_);
  nodes_[node]++;
}

void Holdings::drop_node(uk_node *node, unsigned long count) {
  {
    const std::lock_guard lock(mutex_);
    const auto it = nodes_.find(node);
    if (it == nodes_.end()) return;
    if (count >= it->second) {
      count = it->second;
      nodes_.erase(it);
    } else {
      it->second -= count;
    }
  }
  uk_node_put(node, count);
}

void Holdings::add_file(uk_file *file) {
  const std::lock_guard lock(mutex_);
  files_.insert(file);
}

void Holdings::drop_file(uk_file *file) {
  {
    const std::lock_guard lock(mutex_);
    if (files_.erase(file) == 0) return;
  }
  uk_release(file);
}

void Holdings::clear() {
  std::set<uk_file *> files;
  std::map<uk_node *, unsigned long> nodes;
  {
    const std::lock_guard lock(mutex_);
    files.swap(files_);
    nodes.swap(nodes_);
  }
  for (uk_file *file : files) uk_release(file);
  for (const auto &[node, count] : nodes) uk_node_put(node, count);
}

}  // namespace tarnd
