/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Chooses the number of available workers of a session from periodic samples. An available worker
 * waits for requests; the others are parked.
 *
 * One is best for one program. With two, the host kernel wakes the one that has been idle longer,
 * on another processor, although the first is about to come back for the next request: a short
 * request then takes nearly twice as long. More are better while requests are queued. After a
 * premature decrease, the next one needs twice as many low periods.
 *
 * Samples without any activity are left out. One thread; never sleeps or fails.
 */
#ifndef TARND_FUSE_IDLE_WORKER_COUNT_H
#define TARND_FUSE_IDLE_WORKER_COUNT_H

namespace tarnd {

class IdleWorkerCount {
 public:
  struct Sample {
    int busy = 0;        /* workers with a request */
    int available = 0;   /* workers that are idle, or will be soon */
    int idle = 0;        /* available workers without a request */
    bool queued = false; /* a request waits for a worker */
  };

  /* Samples per decision. */
  static constexpr int kPeriod = 16;
  /* The largest number of low periods before a decrease. */
  static constexpr int kMaxPatience = 32;

  /* `processors`: those that the workers can run on, >= 1. */
  explicit IdleWorkerCount(int processors) : max_(processors) {}

  /* The number of workers that should be available: 1 to `processors`, or up to 2 on one processor
   * after a slow request has blocked others. */
  int target() const { return target_; }
  void add(const Sample &sample);

 private:
  void increase(int max);
  void decide();
  void start_period();

  const int max_;
  int target_ = 1;
  int samples_ = 0;      // in this period
  int stalled_ = 0;      // samples with a queued request and no idle worker
  int low_ = 0;          // samples in which fewer workers would have sufficed
  int low_periods_ = 0;  // since the last increase
  int patience_ = 1;     // low periods before a decrease
};

}  // namespace tarnd

#endif
