// SPDX-License-Identifier: GPL-2.0
#include "tarnd/holdings.h"

#include <algorithm>

namespace tarnd {

bool Holdings::add_node(uk_node *node) {
  const std::lock_guard lock(mutex_);
  Held &held = nodes_[node];
  held.lookups++;
  return held.opens > 0;
}

void Holdings::drop_node(uk_node *node, unsigned long count) {
  {
    const std::lock_guard lock(mutex_);
    const auto it = nodes_.find(node);
    if (it == nodes_.end()) return;
    count = std::min(count, it->second.lookups);
    it->second.lookups -= count;
    if (it->second.lookups == 0 && it->second.opens == 0) nodes_.erase(it);
  }
  if (count > 0) uk_node_put(node, count);
}

void Holdings::add_file(uk_file *file, uk_node *node) {
  const std::lock_guard lock(mutex_);
  files_[file] = node;
  nodes_[node].opens++;
}

void Holdings::close_locked(uk_node *node) {
  const auto it = nodes_.find(node);
  if (--it->second.opens == 0 && it->second.lookups == 0) nodes_.erase(it);
}

void Holdings::drop_file(uk_file *file) {
  {
    const std::lock_guard lock(mutex_);
    const auto it = files_.find(file);
    if (it == files_.end()) return;
    close_locked(it->second);
    files_.erase(it);
  }
  uk_release(file);
}

void Holdings::clear() {
  std::unordered_map<uk_file *, uk_node *> files;
  std::unordered_map<uk_node *, Held> nodes;
  {
    const std::lock_guard lock(mutex_);
    files.swap(files_);
    nodes.swap(nodes_);
  }
  for (const auto &[file, node] : files) uk_release(file);
  for (const auto &[node, held] : nodes)
    if (held.lookups > 0) uk_node_put(node, held.lookups);
}

size_t Holdings::nodes() const {
  const std::lock_guard lock(mutex_);
  return nodes_.size();
}

}  // namespace tarnd
