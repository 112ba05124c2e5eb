/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Which requests are one system call. The host takes a call by a path apart: a look-up of each
 * name, then the call itself. What the look-ups found is good for it, as for a kernel that walks
 * and acts in one go.
 */
#ifndef TARND_FUSE_PATH_WALK_H
#define TARND_FUSE_PATH_WALK_H

namespace tarnd {

/* What a request can be in a call by a path. */
enum class Step { kNone, kLookup, kLast };

/* The walk that the last requests of one worker belong to. */
class PathWalk {
 public:
  /*
   * Takes note of the next request, made by thread `pid` of the host (0: the host itself); `tick`
   * is the time, in steps of some milliseconds at most. Whether it belongs to the same system call
   * as the look-ups right before it: those of the same thread, the first of them in the same tick,
   * for what comes later may be about something that was opened long ago.
   */
  bool take(int pid, Step step, unsigned long tick) {
    const bool same = step != Step::kNone && pid != 0 && pid == pid_ && tick == begun_;
    if (!same) begun_ = tick;
    pid_ = step == Step::kLookup ? pid : 0;
    return same;
  }

 private:
  int pid_ = 0; /* whose look-up the last request was; 0: it was none */
  unsigned long begun_ = 0;
};

}  // namespace tarnd

#endif
