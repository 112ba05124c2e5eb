// SPDX-License-Identifier: GPL-2.0
#include "mirrord/service/walker.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "base/text.h"
#include "mirrord/file_status.h"
#include "mirrord/service/journal.h"

namespace tarn {
namespace {

using std::chrono::steady_clock;

/* Targets that find the same gap ask at about the same time. */
constexpr std::chrono::milliseconds kGather{50};
constexpr std::chrono::milliseconds kLogCheck{100};
/* So far ahead of the first target, in entries. */
constexpr LogPosition kAhead = 16384;

/* kRemoved: since its directory was read. kUnreadable: only a look tells what is wrong with it. */
enum class Found { kThere, kRemoved, kUnreadable };
Found find(int directory, const std::string &name, struct stat &status) {
  if (fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) return Found::kThere;
  return errno == ENOENT ? Found::kRemoved : Found::kUnreadable;
}

/* Where a directory stands beside another one in a walk. kAbove: it is that one, or above it. */
enum class Place { kBefore, kAbove, kBehind };
Place place_in_walk(std::string_view path, std::string_view other) {
  while (!path.empty()) {
    const std::string_view name = take_until(path, '/'), its = take_until(other, '/');
    if (name != its) return name < its ? Place::kBefore : Place::kBehind;
  }
  return Place::kAbove;
}

}  // namespace

Walker::Walker(Options options, Intake &intake)
    : options_(std::move(options)), intake_(intake), source_(options_.directory) {
  thread_ = std::thread([this] { run(); });
}

void Walker::stop() {
  {
    MutexLock lock(mutex_);
    stop_ = true;
    changed_.notify_all();
  }
  if (thread_.joinable()) thread_.join();
}

void Walker::request(const std::string &target, std::int64_t since, LogPosition from) {
  MutexLock lock(mutex_);
  if (begun_ && begun_->position >= from && begun_->begin.since <= since &&
      (begun_->begin.target.empty() || begun_->begin.target == target))
    return;
  rest_wanted_.erase(target);
  for (auto &[number, rest] : cut_off_) rest.targets.erase(target);
  std::erase_if(cut_off_, [](const auto &rest) { return rest.second.targets.empty(); });
  const auto [wanted, fresh] = wanted_.try_emplace(target, since);
  if (!fresh) wanted->second = std::min(wanted->second, since);
  changed_.notify_all();
}

void Walker::go_on(const std::string &target, const WalkBeginEntry &walk,
                   const std::string &after) {
  MutexLock lock(mutex_);
  if (rest_ == walk.walk) rest_wanted_.insert(target);
  if (walks_.contains(walk.walk)) return;
  Walk &rest = cut_off_[walk.walk];
  rest.begin = walk;
  rest.after = after;
  rest.targets.insert(target);
  changed_.notify_all();
}

void Walker::run() {
  MutexLock lock(mutex_);
  while (!stop_) {
    if (wanted_.empty() && cut_off_.empty()) {
      changed_.wait(lock);
      continue;
    }
    lock.unlock();
    if (!pause(kGather)) return;
    go_on_with_walk();
    begin_walk();
    lock.lock();
  }
}

void Walker::begin_walk() {
  MutexLock lock(mutex_);
  if (wanted_.empty()) return;
  Walk next;
  next.begin.target = wanted_.size() == 1 ? wanted_.begin()->first : "";
  next.begin.since = wanted_.begin()->second;
  for (const auto &[target, since] : wanted_) {
    next.begin.since = std::min(next.begin.since, since);
    next.targets.insert(target);
  }
  wanted_.clear();
  begun_ = Begun{intake_.log().end(), next.begin};
  next.begin.walk = begun_->position;
  walks_.insert(next.begin.walk);
  lock.unlock();
  walk(std::move(next));
}

void Walker::go_on_with_walk() {
  MutexLock lock(mutex_);
  if (cut_off_.empty()) return;
  Walk next = std::move(cut_off_.extract(cut_off_.begin()).mapped());
  walks_.insert(next.begin.walk);
  rest_ = next.begin.walk;
  rest_wanted_ = next.targets;
  lock.unlock();
  walk(std::move(next));
  lock.lock();
  rest_.reset();
}

/* Who asks for a rest that was given up is to get it. */
bool Walker::is_wanted(const Walk &walk) {
  MutexLock lock(mutex_);
  if (!walk.after || !rest_wanted_.empty()) return true;
  walks_.erase(walk.begin.walk);
  rest_.reset();
  return false;
}

/* False: told to stop. */
bool Walker::pause(steady_clock::duration time) {
  const auto end = steady_clock::now() + time;
  MutexLock lock(mutex_);
  while (!stop_ && changed_.wait_until(lock, end)) {
  }
  return !stop_;
}

bool Walker::append(const Walk &walk, EntryKind kind, const std::vector<std::byte> &payload) {
  for (bool said = false;; said = true) {
    const LogPosition followed = options_.followed(walk.targets);
    const bool room = followed >= intake_.log().end() || intake_.log().end() - followed < kAhead;
    const auto appended = room ? intake_.append(kind, payload) : Result<LogPosition>(Error{});
    if (appended) return true;
    if (room && !said) say(Level::kWarning, options_.name, appended.error().text);
    if (!pause(kLogCheck)) return false;
  }
}

bool Walker::keep_to_speed(const Walk &walk) {
  if (options_.files_per_second == 0) return pause(steady_clock::duration::zero());
  const auto due =
      walk.started +
      std::chrono::duration_cast<steady_clock::duration>(std::chrono::duration<double>(
          static_cast<double>(walk.files) / static_cast<double>(options_.files_per_second)));
  return pause(std::max(due - steady_clock::now(), steady_clock::duration::zero()));
}

void Walker::walk(Walk walk) {
  walk.started = steady_clock::now();
  if (walk.begin.since != kSinceEver) walk.since = walk.begin.since - kTimestampSlackUs;
  if (!walk.after && !append(walk, EntryKind::kWalkBegin, encode(walk.begin))) return;
  if (!directory(walk, "", false, 0, 1)) return;
  if (append(walk, EntryKind::kWalkEnd, encode(WalkEndEntry{walk.begin.walk, walk.complete})))
    options_.walked();
}

bool Walker::directory(Walk &walk, const std::string &path, bool moved, double from, double to) {
  auto object = source_.find(path);
  if (object && (!*object || !S_ISDIR((*object)->status.st_mode))) return true;  // a record tells
  auto entries =
      object ? source_.entries(**object) : Result<std::vector<DirectoryEntry>>(object.error());
  if (!entries) {
    if (object && entries.error().code == -ENOENT && !path.empty()) return true;  // removed since
    if (std::exchange(walk.complete, false))
      say(Level::kWarning, options_.name, printable(path) + ": " + entries.error().text);
    // Whoever goes on with the walk behind it has to know.
    return append(walk, EntryKind::kLook,
                  encode(LookEntry{walk.begin.walk, LookEntry::kUnread, path}));
  }
  walk.files += entries->size();
  if (!keep_to_speed(walk) || !is_wanted(walk)) return false;
  // A rename changes the time of the directory, but none of what is below it.
  moved = moved || (!path.empty() && microseconds((*object)->status.st_ctim) >= walk.since);
  const bool walked = walk.after && place_in_walk(path, *walk.after) != Place::kBehind;
  if (!walked && (moved || has_changes(walk, **object, *entries))) {
    const auto done = static_cast<std::uint32_t>(from * LookEntry::kWhole);
    if (!append(walk, EntryKind::kLook, encode(LookEntry{walk.begin.walk, done, path})))
      return false;
  }
  const Below inside = below(walk, path, **object, *entries);
  // Nothing of this directory is held while those below are walked.
  entries->clear();
  object->reset();
  const double share = (to - from) / static_cast<double>(inside.walked + inside.paths.size() + 1);
  from += static_cast<double>(inside.walked) * share;
  for (const std::string &next : inside.paths) {
    from += share;
    if (!directory(walk, next, moved, from, from + share)) return false;
  }
  return true;
}

Walker::Below Walker::below(const Walk &walk, const std::string &path,
                            const Source::Object &directory,
                            const std::vector<DirectoryEntry> &entries) const {
  Below found;
  for (const DirectoryEntry &entry : entries) {
    std::string child = path.empty() ? entry.name : path + "/" + entry.name;
    if (!entry.may_be_directory || !options_.included(child)) continue;
    if (walk.after && place_in_walk(child, *walk.after) == Place::kBefore) {
      ++found.walked;
      continue;
    }
    struct stat status;
    const Found there = find(directory.fd.get(), entry.name, status);
    if (there == Found::kUnreadable || (there == Found::kThere && S_ISDIR(status.st_mode)))
      found.paths.push_back(std::move(child));
  }
  std::sort(found.paths.begin(), found.paths.end());  // one directory's: by their names
  return found;
}

bool Walker::has_changes(const Walk &walk, const Source::Object &directory,
                         const std::vector<DirectoryEntry> &entries) const {
  const auto changed = [&walk](const struct stat &status) {
    return microseconds(status.st_ctim) >= walk.since;
  };
  if (walk.since == kSinceEver || changed(directory.status)) return true;
  return std::any_of(entries.begin(), entries.end(), [&](const DirectoryEntry &entry) {
    struct stat status;
    const Found found = find(directory.fd.get(), entry.name, status);
    return found == Found::kUnreadable || (found == Found::kThere && changed(status));
  });
}

}  // namespace tarn
