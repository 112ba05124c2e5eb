// SPDX-License-Identifier: GPL-2.0
#include "tarnd/holdings.h"

#include <algorithm>

namespace tarnd {

// What is picked is that part of the limit more than there is too much.
static constexpr size_t kSlack = 8;

bool Holdings::add_node(uk_node *node) {
  const std::lock_guard lock(mutex_);
  Held &held = nodes_[node];
  held.lookups++;
  if (nodes_.size() > limit_) grown_.notify_one();
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

Pages Holdings::add_file(uk_file *file, uk_node *node, Pages wanted) {
  const std::lock_guard lock(mutex_);
  files_[file] = node;
  Held &held = nodes_[node];
  held.opens++;
  if (wanted == Pages::kKept) held.pages = Pages::kKept;
  return held.pages;
}

void Holdings::begin_write(uk_node *node, Range range) {
  const std::lock_guard lock(mutex_);
  Held &held = nodes_.at(node);
  held.written = range;
  held.overlapped = false;
}

void Holdings::write_back(uk_node *node, Range range) {
  const std::lock_guard lock(mutex_);
  Held &held = nodes_.at(node);
  if (range.from < held.written.to && held.written.from < range.to) held.overlapped = true;
}

bool Holdings::overlapped(uk_node *node) const {
  const std::lock_guard lock(mutex_);
  return nodes_.at(node).overlapped;
}

void Holdings::end_write(uk_node *node) {
  const std::lock_guard lock(mutex_);
  nodes_.at(node).written = {};
}

Pages Holdings::pages(uk_node *node) const {
  const std::lock_guard lock(mutex_);
  return nodes_.at(node).pages;
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

// From where the last call stopped, so that every node has its turn: which was used last nobody
// knows.
std::vector<uk_node *> Holdings::pick_locked(size_t most) {
  std::vector<uk_node *> picked;
  picked.reserve(most);  // nothing fails once the first reference is taken
  const size_t buckets = nodes_.bucket_count();
  for (size_t seen = 0; seen < buckets && picked.size() < most; seen++) {
    next_bucket_ = (next_bucket_ + 1) % buckets;
    for (auto it = nodes_.begin(next_bucket_); it != nodes_.end(next_bucket_); ++it) {
      const auto &[node, held] = *it;
      if (held.opens > 0 || held.lookups == 0 || picked.size() == most) continue;
      picked.push_back(node);
      uk_node_get(node);
    }
  }
  return picked;
}

std::optional<std::vector<uk_node *>> Holdings::wait_for_too_many(size_t limit) {
  std::unique_lock lock(mutex_);
  limit_ = limit;
  grown_.wait(lock, [this] { return closed_ || nodes_.size() > limit_; });
  if (closed_) return std::nullopt;
  return pick_locked(nodes_.size() - limit_ + limit_ / kSlack);
}

void Holdings::close() {
  const std::lock_guard lock(mutex_);
  closed_ = true;
  grown_.notify_all();
}

}  // namespace tarnd
