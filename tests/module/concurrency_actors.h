/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Threads that do at once all that can be done to a mounted module, and note in a model what they
 * do. Writers end after their rounds; the others go on until all writers have ended.
 */
#ifndef TESTS_MODULE_CONCURRENCY_ACTORS_H
#define TESTS_MODULE_CONCURRENCY_ACTORS_H

#include "tests/module/concurrency_model.h"

namespace concurrency {

/* The time in which the replicated directory was in the set. */
struct directory_life {
  window added, removed;
};
/* A rename inside it, by a program that is not the daemon's. */
struct move {
  window when;
  int result;
};
inline constexpr unsigned kMoves = 1024;

/* Begins with all bytes zero. */
struct storm {
  model notes;
  atomic_t writers, threads;
  int rounds; /* of each writer */
  directory_life lives[kMoves];
  move moves[kMoves];
  unsigned life_count, move_count;
  unsigned messages_sent[3]; /* rule messages: added, deleted, flushed */

  bool goes_on() { return atomic_read(&writers) > 0; }
};

/* Notes the clock around what its scope does. */
class noted {
 public:
  noted(storm &s, window &w) : s_(s), w_(w) { w_.begin = s_.notes.now(); }
  ~noted() { w_.end = s_.notes.now(); }
  noted(const noted &) = delete;
  noted &operator=(const noted &) = delete;

 private:
  storm &s_;
  window &w_;
};

/*
 * Waits until no message to the module is under way. Of messages that come at once a sender's call
 * may serve another's, so that its own is served when that one's call says so.
 */
void wait_until_served();

/* Without flushes the last number of every rule is known. */
enum flushing { kNoFlushes, kFlushesToo };

/* Starts so many writers, and one thread for each other thing. False if there is no thread. */
bool start_all(storm &s, int writers, int rounds, flushing flush = kFlushesToo);
/* What only the end can tell; gives back what the storm has kept. */
void finish(storm &s);

}  // namespace concurrency

#endif
