// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/holdings.h"

#include <algorithm>
#include <type_traits>

namespace tarnd {

// What is picked is that part of the limit more than there is too much.
static constexpr size_t kSlack = 8;

Holdings::Held &Holdings::held_of(uk_node *node) {
  static_assert(sizeof(Held) <= UK_NODE_ROOM && std::is_trivially_copyable_v<Held>);
  return *static_cast<Held *>(uk_node_room(node));
}

void Holdings::append(List *list, uk_node *node) {
  Held &held = held_of(node);
  held.before = list->last;
  held.after = nullptr;
  (list->last ? held_of(list->last).after : list->first) = node;
  list->last = node;
  list->count++;
}

void Holdings::remove(List *list, uk_node *node) {
  const Held &held = held_of(node);
  (held.before ? held_of(held.before).after : list->first) = held.after;
  (held.after ? held_of(held.after).before : list->last) = held.before;
  list->count--;
}

Holdings::Held &Holdings::hold_locked(uk_node *node, Kind kind) {
  Held &held = held_of(node);
  if (held.is_held() && held.kind == kind) return held;
  if (held.is_held()) remove(&list_of(held.kind), node);
  held.kind = kind;
  append(&list_of(kind), node);
  return held;
}

void Holdings::leave_if_unheld_locked(uk_node *node) {
  Held &held = held_of(node);
  if (held.is_held()) return;
  remove(&list_of(held.kind), node);
  held = {};
}

// Of the directories only those count that are not closed when there are too many of them.
size_t Holdings::too_many_locked() const {
  const size_t held = others_.count + uk_kept_directories();
  return others_.count > 0 && held > limit_ ? held - limit_ : 0;
}

void Holdings::add_node(uk_node *node, Kind kind) {
  const std::lock_guard lock(mutex_);
  hold_locked(node, kind).lookups++;
  if (too_many_locked()) grown_.notify_one();
}

void Holdings::drop_node(uk_node *node, unsigned long count) {
  {
    const std::lock_guard lock(mutex_);
    Held &held = held_of(node);
    count = std::min(count, held.lookups);
    if (count == 0) return;
    held.lookups -= count;
    leave_if_unheld_locked(node);
  }
  uk_node_put(node, count);
}

void Holdings::add_file(uk_file *file, uk_node *node) {
  const std::lock_guard lock(mutex_);
  files_[file] = node;
  uk_node_get(node);
  hold_locked(node, held_of(node).kind).opens++;
}

void Holdings::drop_file(uk_file *file) {
  uk_node *node = nullptr;
  {
    const std::lock_guard lock(mutex_);
    const auto it = files_.find(file);
    if (it == files_.end()) return;
    node = it->second;
    files_.erase(it);
    held_of(node).opens--;
    leave_if_unheld_locked(node);
  }
  uk_release(file);
  uk_node_put(node, 1);
}

void Holdings::clear() {
  std::unique_lock lock(mutex_);
  while (!files_.empty()) {
    uk_file *file = files_.begin()->first;
    lock.unlock();
    drop_file(file);
    lock.lock();
  }
  for (const List *list : {&others_, &directories_}) {
    while (uk_node *node = list->first) {
      const unsigned long lookups = held_of(node).lookups;
      lock.unlock();
      drop_node(node, lookups);
      lock.lock();
    }
  }
}

size_t Holdings::nodes() const {
  const std::lock_guard lock(mutex_);
  return others_.count + directories_.count;
}

size_t Holdings::open_files() const {
  const std::lock_guard lock(mutex_);
  return files_.size();
}

// From the front, and what was looked at goes to the back, so that every node has its turn: which
// was used last nobody knows.
std::vector<uk_node *> Holdings::pick_locked(size_t most) {
  std::vector<uk_node *> picked;
  picked.reserve(std::min(most, others_.count));  // nothing fails once the first reference is taken
  for (size_t left = others_.count; left > 0 && picked.size() < most; left--) {
    uk_node *node = others_.first;
    remove(&others_, node);
    append(&others_, node);
    const Held &held = held_of(node);
    if (held.opens > 0 || held.lookups == 0) continue;
    picked.push_back(node);
    uk_node_get(node);
  }
  return picked;
}

std::optional<std::vector<uk_node *>> Holdings::wait_for_too_many(size_t limit) {
  std::unique_lock lock(mutex_);
  limit_ = limit;
  grown_.wait(lock, [this] { return closed_ || too_many_locked() > 0; });
  if (closed_) return std::nullopt;
  return pick_locked(too_many_locked() + limit_ / kSlack);
}

void Holdings::close() {
  const std::lock_guard lock(mutex_);
  closed_ = true;
  grown_.notify_all();
}

}  // namespace tarnd
