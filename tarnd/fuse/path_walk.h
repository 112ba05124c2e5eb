/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Finds the requests of one system call. For a call with a path the host sends a look-up of each
 * name, then the operation. The results of the look-ups stay valid within the call, as in a kernel
 * that does both.
 */
#ifndef TARND_FUSE_PATH_WALK_H
#define TARND_FUSE_PATH_WALK_H

namespace tarnd {

/* The role of a request in a system call with a path. */
enum class Step { kNone, kLookup, kLast };

/* The current walk of one worker. */
class PathWalk {
 public:
  /*
   * Adds the next request, of the host's thread `pid` (0: the host itself). `tick` is the time in
   * steps of a few milliseconds. Returns true if it continues the system call of the previous
   * look-ups: they are of the same thread, and the first one has the same tick. Later, the request
   * may refer to a file that was opened long ago.
   */
  bool take(int pid, Step step, unsigned long tick) {
    const bool same = step != Step::kNone && pid != 0 && pid == pid_ && tick == begun_;
    if (!same) begun_ = tick;
    pid_ = step == Step::kLookup ? pid : 0;
    return same;
  }

 private:
  int pid_ = 0; /* the thread of the last request, if that was a look-up; else 0 */
  unsigned long begun_ = 0;
};

}  // namespace tarnd

#endif
