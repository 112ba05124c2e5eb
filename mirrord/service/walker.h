/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Walks over a source and appends an entry for each directory that targets have to compare: all of
 * them for a first copy, those with changes since some time, and all below these, for a gap. The
 * entries stand in the log between the records, while programs go on writing; what is made in a
 * directory behind the walk is told by records.
 *
 * A directory comes before those below it, and these are in the order of their names. So the last
 * directory of a walk that was cut off by the end of its process tells where the next one goes on;
 * nothing is asked of what lies before it but the names in the directories on the way.
 *
 * One thread of its own, which waits while all that the walk is for are far behind, and when a
 * speed is set. It waits for nobody else: neither for other targets, nor for replicas on other
 * hosts, whose entries the stream keeps.
 */
#ifndef TARN_MIRRORD_SERVICE_WALKER_H
#define TARN_MIRRORD_SERVICE_WALKER_H

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "base/mutex.h"
#include "mirrord/local_source.h"
#include "mirrord/service/intake.h"
#include "mirrord/service/walks.h"

namespace tarn {

class Walker final : public Walks {
 public:
  struct Options {
    std::string name;      /* of the source, for messages */
    std::string directory; /* the source */
    std::function<bool(const std::string &path)> included;
    /* Where the first of these, who want a walk, reads the log; the largest position: none does. */
    std::function<LogPosition(const std::set<std::string> &targets)> followed;
    std::uint64_t files_per_second = 0; /* 0: no limit */
    std::function<void()> walked;       /* called by the thread when a walk has ended */
  };
  Walker(Options options, Intake &intake);
  ~Walker() override { stop(); }
  Walker(const Walker &) = delete;
  Walker &operator=(const Walker &) = delete;

  /* Ends the thread; any number of times. */
  void stop() EXCLUDES(mutex_);

  /* A walk that has begun there already is not repeated. */
  void request(const std::string &target, std::int64_t since, LogPosition from) override
      EXCLUDES(mutex_);
  /* A walk of this process is left alone. A rest that nobody wants any more, because all who did
   * have asked for a walk anew, is given up. */
  void go_on(const std::string &target, const WalkBeginEntry &walk,
             const std::string &after) override EXCLUDES(mutex_);

 private:
  struct Walk {
    WalkBeginEntry begin;
    std::optional<std::string> after = {}; /* goes on behind it */
    std::set<std::string> targets;         /* whom it is for */
    std::int64_t since = kSinceEver;       /* with slack for coarse file times */
    bool complete = true;
    std::uint64_t files = 0;
    std::chrono::steady_clock::time_point started;
  };

  void run();
  void begin_walk() EXCLUDES(mutex_);
  void go_on_with_walk() EXCLUDES(mutex_);
  void walk(Walk walk);
  /* False: told to stop, or given up. `moved`: it or a directory above it may have come here since
   * the walk's time. `from` and `to`: the share of the whole walk, 0 to 1. */
  bool directory(Walk &walk, const std::string &path, bool moved, double from, double to);
  /* The directories in it that are to be walked, and how many were before. */
  struct Below {
    std::vector<std::string> paths;
    std::size_t walked = 0;
  };
  Below below(const Walk &walk, const std::string &path, const Source::Object &directory,
              const std::vector<DirectoryEntry> &entries) const;
  bool has_changes(const Walk &walk, const Source::Object &directory,
                   const std::vector<DirectoryEntry> &entries) const;
  bool append(const Walk &walk, EntryKind kind, const std::vector<std::byte> &payload)
      EXCLUDES(mutex_);
  bool keep_to_speed(const Walk &walk) EXCLUDES(mutex_);
  bool is_wanted(const Walk &walk) EXCLUDES(mutex_);
  bool pause(std::chrono::steady_clock::duration time) EXCLUDES(mutex_);

  const Options options_;
  Intake &intake_;
  LocalSource source_;
  Mutex mutex_;
  Condition changed_;
  bool stop_ GUARDED_BY(mutex_) = false;
  std::map<std::string, std::int64_t> wanted_ GUARDED_BY(mutex_); /* by target */
  struct Begun {
    LogPosition position;
    WalkBeginEntry begin;
  };
  std::optional<Begun> begun_ GUARDED_BY(mutex_);            /* the last walk, finished or not */
  std::map<std::uint64_t, Walk> cut_off_ GUARDED_BY(mutex_); /* walks to go on with, by number */
  std::set<std::uint64_t> walks_ GUARDED_BY(mutex_);         /* of this process */
  std::optional<std::uint64_t> rest_ GUARDED_BY(mutex_);     /* of this walk, under way */
  std::set<std::string> rest_wanted_ GUARDED_BY(mutex_);     /* by these targets */
  std::thread thread_;
};

}  // namespace tarn

#endif
