/* SPDX-License-Identifier: GPL-2.0 */
/*
 * How many workers of a session shall be able to take a request, from what somebody who looks at
 * them now and then sees.
 *
 * One is best for one program: with a second, the host kernel wakes the one that has rested longer,
 * on another processor, for a request that the other was about to come back for, which makes a
 * short request nearly twice as long. More are better while requests wait for a worker. A number
 * that turns out to have been too small soon after it was lowered is kept longer the next time.
 *
 * Looks at times when nothing happens are not to be told. One thread uses it; it neither sleeps nor
 * fails.
 */
#ifndef TARND_FUSE_TAKER_COUNT_H
#define TARND_FUSE_TAKER_COUNT_H

namespace tarnd {

class TakerCount {
 public:
  /* What a look saw. */
  struct Look {
    int serving = 0;      /* workers at a request */
    int able = 0;         /* workers that are free, or will be soon */
    int free = 0;         /* those of them that have no request */
    bool waiting = false; /* a request has not been taken yet */
  };

  /* As many looks are judged together. */
  static constexpr int kLooks = 16;
  /* As many times at most it has to be judged too high before it is lowered. */
  static constexpr int kMaxPatience = 32;

  /* `processors`: to run the workers, >= 1. */
  explicit TakerCount(int processors) : most_(processors) {}

  /* From 1 to `processors`; 2 at least when one request has held up others. */
  int wanted() const { return wanted_; }
  void saw(const Look &look);

 private:
  void raise(int most);
  void judge();
  void begin();

  const int most_;
  int wanted_ = 1;
  int looks_ = 0;     // since it was judged last
  int held_up_ = 0;   // of those, a request waited and no worker was free
  int spare_ = 0;     // of those, fewer would have done
  int too_many_ = 0;  // times that it was judged too high, since it was raised
  int patience_ = 1;  // of those, as many lower it
};

}  // namespace tarnd

#endif
