// SPDX-License-Identifier: GPL-2.0
#include "tarnd/fuse/lookup_table.h"

#include <algorithm>
#include <type_traits>

namespace tarnd {

using tarn::MutexLock;

// Evicts this part of the limit beyond the excess, so that the next eviction is not due at once.
static constexpr size_t kSlack = 8;

LookupTable::Entry &LookupTable::entry_locked(uk_node *node) {
  static_assert(sizeof(Entry) <= UK_NODE_ROOM && std::is_trivially_copyable_v<Entry>);
  return *static_cast<Entry *>(uk_node_room(node));
}

void LookupTable::append_locked(List *list, uk_node *node) {
  Entry &entry = entry_locked(node);
  entry.previous = list->last;
  entry.next = nullptr;
  (list->last ? entry_locked(list->last).next : list->first) = node;
  list->last = node;
  list->count++;
}

void LookupTable::unlink_locked(List *list, uk_node *node) {
  const Entry &entry = entry_locked(node);
  (entry.previous ? entry_locked(entry.previous).next : list->first) = entry.next;
  (entry.next ? entry_locked(entry.next).previous : list->last) = entry.previous;
  list->count--;
}

LookupTable::Entry &LookupTable::insert_locked(uk_node *node, Kind kind) {
  Entry &entry = entry_locked(node);
  if (entry.referenced() && entry.kind == kind) return entry;
  if (entry.referenced()) unlink_locked(&list_locked(entry.kind), node);
  entry.kind = kind;
  append_locked(&list_locked(kind), node);
  return entry;
}

void LookupTable::remove_unreferenced_locked(uk_node *node) {
  Entry &entry = entry_locked(node);
  if (entry.referenced()) return;
  unlink_locked(&list_locked(entry.kind), node);
  entry = {};
}

// Directories count only if their descriptors stay open.
size_t LookupTable::excess_locked() const {
  const size_t descriptors = files_.count + uk_pinned_directories();
  return files_.count > 0 && descriptors > limit_ ? descriptors - limit_ : 0;
}

bool LookupTable::crowded() const {
  const MutexLock lock(mutex_);
  return excess_locked() > 0;
}

void LookupTable::add_lookup(uk_node *node, Kind kind) {
  const MutexLock lock(mutex_);
  insert_locked(node, kind).lookups++;
  if (excess_locked()) evict_.notify_one();
}

void LookupTable::forget(uk_node *node, unsigned long count) {
  {
    const MutexLock lock(mutex_);
    Entry &entry = entry_locked(node);
    count = std::min(count, entry.lookups);
    if (count == 0) return;
    entry.lookups -= count;
    remove_unreferenced_locked(node);
  }
  uk_node_put(node, count);
}

void LookupTable::add_open_file(uk_file *file, uk_node *node) {
  const MutexLock lock(mutex_);
  open_files_[file] = node;
  uk_node_get(node);
  insert_locked(node, entry_locked(node).kind).opens++;
}

void LookupTable::release(uk_file *file) {
  uk_node *node = nullptr;
  {
    const MutexLock lock(mutex_);
    const auto it = open_files_.find(file);
    if (it == open_files_.end()) return;
    node = it->second;
    open_files_.erase(it);
    entry_locked(node).opens--;
    remove_unreferenced_locked(node);
  }
  uk_release(file);
  uk_node_put(node, 1);
}

void LookupTable::clear() {
  MutexLock lock(mutex_);
  while (!open_files_.empty()) {
    uk_file *file = open_files_.begin()->first;
    lock.unlock();
    release(file);
    lock.lock();
  }
  for (const List *list : {&files_, &directories_}) {
    while (uk_node *node = list->first) {
      const unsigned long lookups = entry_locked(node).lookups;
      lock.unlock();
      forget(node, lookups);
      lock.lock();
    }
  }
}

size_t LookupTable::nodes() const {
  const MutexLock lock(mutex_);
  return files_.count + directories_.count;
}

size_t LookupTable::open_files() const {
  const MutexLock lock(mutex_);
  return open_files_.size();
}

// Round robin: the host does not tell which node was used last.
std::vector<uk_node *> LookupTable::pick_victims_locked(size_t most) {
  std::vector<uk_node *> victims;
  victims.reserve(std::min(most, files_.count));  // the last step that can fail
  for (size_t left = files_.count; left > 0 && victims.size() < most; left--) {
    uk_node *node = files_.first;
    unlink_locked(&files_, node);
    append_locked(&files_, node);
    const Entry &entry = entry_locked(node);
    if (entry.opens > 0 || entry.lookups == 0) continue;
    victims.push_back(node);
    uk_node_get(node);
  }
  return victims;
}

std::optional<std::vector<uk_node *>> LookupTable::wait_for_eviction(size_t limit) {
  MutexLock lock(mutex_);
  limit_ = limit;
  while (!closed_ && excess_locked() == 0) evict_.wait(lock);
  if (closed_) return std::nullopt;
  return pick_victims_locked(excess_locked() + limit_ / kSlack);
}

void LookupTable::close() {
  const MutexLock lock(mutex_);
  closed_ = true;
  evict_.notify_all();
}

}  // namespace tarnd
