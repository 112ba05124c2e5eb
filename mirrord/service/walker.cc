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
  const auto [wanted, fresh] = wanted_.try_emplace(target, since);
  if (!fresh) wanted->second = std::min(wanted->second, since);
  changed_.notify_all();
}

void Walker::run() {
  MutexLock lock(mutex_);
  while (!stop_) {
    if (wanted_.empty()) {
      changed_.wait(lock);
      continue;
    }
    lock.unlock();
    if (!pause(kGather)) return;
    lock.lock();
    WalkBeginEntry begin;
    begin.target = wanted_.size() == 1 ? wanted_.begin()->first : "";
    begin.since = wanted_.begin()->second;
    std::set<std::string> targets;
    for (const auto &[target, since] : wanted_) {
      begin.since = std::min(begin.since, since);
      targets.insert(target);
    }
    wanted_.clear();
    begun_ = Begun{intake_.log().end(), begin};
    begin.walk = begun_->position;
    lock.unlock();
    walk(begin, std::move(targets));
    lock.lock();
  }
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

void Walker::walk(const WalkBeginEntry &begin, std::set<std::string> targets) {
  Walk walk{.begin = begin, .targets = std::move(targets), .started = steady_clock::now()};
  if (begin.since != kSinceEver) walk.since = begin.since - kTimestampSlackUs;
  if (!append(walk, EntryKind::kWalkBegin, encode(begin))) return;
  if (!directory(walk, "", false, 0, 1)) return;
  if (append(walk, EntryKind::kWalkEnd, encode(WalkEndEntry{begin.walk, walk.complete})))
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
    return true;
  }
  walk.files += entries->size();
  if (!keep_to_speed(walk)) return false;
  // A rename changes the time of the directory, but none of what is below it.
  moved = moved || (!path.empty() && microseconds((*object)->status.st_ctim) >= walk.since);
  if (moved || has_changes(walk, **object, *entries)) {
    const auto done = static_cast<std::uint32_t>(from * LookEntry::kWhole);
    if (!append(walk, EntryKind::kLook, encode(LookEntry{walk.begin.walk, done, path})))
      return false;
  }
  std::vector<std::string> below;
  for (const DirectoryEntry &entry : *entries) {
    std::string child = path.empty() ? entry.name : path + "/" + entry.name;
    if (!entry.may_be_directory || !options_.included(child)) continue;
    struct stat status;
    const Found found = find((*object)->fd.get(), entry.name, status);
    if (found == Found::kUnreadable || (found == Found::kThere && S_ISDIR(status.st_mode)))
      below.push_back(std::move(child));
  }
  // Nothing of this directory is held while those below are walked.
  entries->clear();
  object->reset();
  const double share = (to - from) / static_cast<double>(below.size() + 1);
  for (std::size_t i = 0; i < below.size(); ++i) {
    from += share;
    if (!directory(walk, below[i], moved, from, from + share)) return false;
  }
  return true;
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
