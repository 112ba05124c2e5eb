/* SPDX-License-Identifier: GPL-2.0 */
/*
 * Two general engines that can match a path against a list of directories, set up as well as they
 * allow: patterns anchored at the start, and paths handed over with a '/' behind them, so that no
 * pattern has to look for the end. A constructor that fails throws.
 */
#ifndef BENCH_PEERS_H
#define BENCH_PEERS_H

#include <hs/hs.h>
#include <re2/set.h>

#include <memory>
#include <string>
#include <vector>

class Re2Peer {
 public:
  explicit Re2Peer(const std::vector<std::string> &dirs);
  /* Whether any directory covers the path. */
  bool match(const std::string &slashed) const { return set_.Match(slashed, nullptr); }
  /* Which ones do. Not from several threads. */
  const std::vector<int> &hits(const std::string &slashed) {
    if (!set_.Match(slashed, &found_)) found_.clear();
    return found_;
  }

 private:
  re2::RE2::Set set_;
  std::vector<int> found_;
};

class HyperscanPeer {
 public:
  explicit HyperscanPeer(const std::vector<std::string> &dirs);
  /* Stops at the first directory that covers the path. */
  bool match(const std::string &slashed) const {
    return hs_scan(database_.get(), slashed.data(), static_cast<unsigned>(slashed.size()), 0,
                   scratch_.get(), stop_at_first, nullptr) == HS_SCAN_TERMINATED;
  }
  const std::vector<int> &hits(const std::string &slashed) {
    found_.clear();
    hs_scan(database_.get(), slashed.data(), static_cast<unsigned>(slashed.size()), 0,
            scratch_.get(), collect, &found_);
    return found_;
  }

 private:
  static int stop_at_first(unsigned, unsigned long long, unsigned long long, unsigned, void *) {
    return 1;
  }
  static int collect(unsigned id, unsigned long long, unsigned long long, unsigned, void *found) {
    static_cast<std::vector<int> *>(found)->push_back(static_cast<int>(id));
    return 0;
  }

  struct Free {
    void operator()(hs_database_t *database) const { hs_free_database(database); }
    void operator()(hs_scratch_t *scratch) const { hs_free_scratch(scratch); }
  };
  std::unique_ptr<hs_database_t, Free> database_;
  std::unique_ptr<hs_scratch_t, Free> scratch_;
  std::vector<int> found_;
};

#endif
